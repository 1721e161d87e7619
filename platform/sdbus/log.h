// How the files of this layer log: one tag, one prefix. A file names itself in a constant kSource.
#pragma once

#include "platform/velmarlog/velmarlog.h"

#define AT "%s %s(%d): "
#define HERE kSource, __func__, __LINE__
#define LOG(level, ...) velmarLogPrint(0, level, "sdbus", __VA_ARGS__)
