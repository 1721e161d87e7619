// What the log layer of version 1.0 offered, and nothing newer.
#include <cstdio>

#include "platform/velmarlog/velmarlog.h"

void velmarLogPrint(int /*id*/, int /*level*/, const char* tag, const char* format, ...) {
    std::fprintf(stderr, "earlier: %s %s\n", tag, format);
}
void velmarLogSetLevel(int /*level*/) {}
void velmarLogSetSink(VelmarLogSink /*sink*/) {}
