// What the log layer of version 1.0 offered, and nothing newer.
#include <cstdarg>
#include <cstdio>

#include "platform/velmarlog/velmarlog.h"

void velmarLogPrint(int /*id*/, int /*level*/, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fprintf(stderr, "earlier: %s ", tag);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

void velmarLogSetLevel(int /*level*/) {}

void velmarLogSetSink(VelmarLogSink /*sink*/) {}
