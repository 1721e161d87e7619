// How a source file writes its log lines, so that tag, source name and prefix stand once in it. The file defines kTag
// and kSource, and then:
//     LOG(7, AT "open failed: %s", HERE, path);
// HERE_AT gives the line a number of its own, by which those who read logs know it; HERE_AS gives it the name of
// another function, for helpers that speak for their caller. For .cpp files only.
#pragma once

#include "platform/velmarlog/velmarlog.h"

#define AT "%s %s(%d): "
#define HERE kSource, __func__, __LINE__
#define HERE_AT(line) kSource, __func__, line
#define HERE_AS(function) kSource, function, __LINE__
#define LOG(level, ...) velmarLogPrint(0, level, kTag, __VA_ARGS__)
