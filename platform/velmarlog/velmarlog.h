// The log layer: one printf-like call for every line, and two knobs for the host process.
#pragma once

#include <functional>
#include <string>

#define VELMARLOG_API __attribute__((visibility("default")))

// What a host's own library of this name may lack: weak for all but the layer itself, so that a caller is loaded
// without it, and asks for its address before the call.
#ifndef VELMARLOG_OPTIONAL
#define VELMARLOG_OPTIONAL __attribute__((weak))
#endif

// Logs one line.
// id: the log buffer; only 0 is in use.
// level: 5 information, 6 warning and timing, 7 error.
// tag: who speaks, for example "sdconfig".
// format: printf's. Where it begins with "%s %s(%d): " the first three arguments are the source file, the function
// and the line, and reach the journal as CODE_FILE, CODE_FUNC and CODE_LINE as well.
// Where the line goes: to the host's sink if it has set one; else to the journal, where standard error is connected to
// it; else to standard error, in one write, with time, level and tag first.
// Any thread, during static initialisation and at exit too, and in a forked child at once. Never throws, keeps errno.
VELMARLOG_API void velmarLogPrint(int id, int level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Lines of a level below `level` are dropped. The default is 6: a library that chatters into its host's terminal is a
// nuisance. 8 silences everything. Any thread.
VELMARLOG_API void velmarLogSetLevel(int level);

// What a host may put in place of the journal and standard error; gets the formatted line without a final newline.
// It is called on the thread that logs, by several at once. What it logs itself goes to the default destination, and so
// does a line on which it throws. A forked child goes on with it: that its own locks are free there is the host's care.
using VelmarLogSink = std::function<void(int level, const char* tag, const std::string& line)>;

// Sends all lines to `sink`; an empty one brings the default back. A thread that is logging may still be running the
// old one after the return. Any thread.
VELMARLOG_API void velmarLogSetSink(VelmarLogSink sink);

// Whether lines show the secrets that they name: the values of SetSecure and SetProperty calls that failed, of the
// identity keys, of lock-screen settings, and texts to sign. The default is true: a line has all that it tells. False
// puts their length and a digest in their place, "[12 bytes, 9f86d081]". One value has one digest in a process, and
// another in each other process: its key is random and never leaves memory. Any thread; for lines from then on.
VELMARLOG_OPTIONAL VELMARLOG_API void velmarLogSetSecretsShown(bool shown);

// What lines show in the place of `value`; "" where they show secrets. For who logs. Any thread; never throws.
VELMARLOG_OPTIONAL VELMARLOG_API std::string velmarLogHidden(const std::string& value);
