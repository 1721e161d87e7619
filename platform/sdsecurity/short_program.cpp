#include "platform/sdsecurity/short_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "base/unique_fd.h"
#include "base/wait_ready.h"
#include "platform/sdsecurity/spawn_plan.h"

namespace sd::security {
namespace {

struct Pipe {
    UniqueFd read;
    UniqueFd write;

    bool open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
        read.reset(ends[0]);
        write.reset(ends[1]);
        return true;
    }
};

// The program's own end blocks, as programs expect.
bool makeBlocking(const UniqueFd& end) {
    return ::fcntl(end.get(), F_SETFL, 0) == 0;
}

// standard: what it has open. Returns 0, or an errno.
int spawn(const char* const* arguments, const char* const* environment, const std::array<int, 3>& standard,
          pid_t& process) {
    SpawnPlan plan;
    // Above the standard ones first: one of the three may be among those, in a process that was started without.
    constexpr int kAbove = 3;
    std::array<UniqueFd, kAbove> held;
    for (std::size_t i = 0; i < held.size(); ++i) held[i].reset(::fcntl(standard[i], F_DUPFD_CLOEXEC, kAbove));
    for (std::size_t i = 0; i < held.size(); ++i) plan.give(held[i].get(), static_cast<int>(i));
    plan.closeFrom(kAbove);
    return plan.run(arguments, environment, process);
}

// One of the program's outputs. What is beyond the room is read, and dropped.
struct Output {
    UniqueFd end;
    char* room;
    std::size_t roomSize;
    std::size_t size = 0;
    bool isTooMuch = false;

    // What is there, without waiting. Closes the end with the output.
    void read() {
        char spare[512];
        for (;;) {
            const bool isFull = size == roomSize;
            const ssize_t count =
                isFull ? ::read(end.get(), spare, sizeof spare) : ::read(end.get(), room + size, roomSize - size);
            if (count < 0 && errno == EINTR) continue;
            if (count < 0 && errno == EAGAIN) return;
            if (count <= 0) return end.reset();
            if (isFull) {
                isTooMuch = true;
                return;
            }
            size += static_cast<std::size_t>(count);
        }
    }
};

// Reads both to their ends. False where one of them is longer than may be, or the deadline passes.
bool readBoth(Output& output, Output& error, const Deadline& deadline) {
    while (output.end || error.end) {
        pollfd sources[] = {{output.end.get(), POLLIN, 0}, {error.end.get(), POLLIN, 0}};
        const int ready = ::poll(sources, 2, deadline.millisecondsLeft());
        if (ready == 0 || (ready < 0 && errno != EINTR)) return false;
        if (sources[0].revents != 0) output.read();
        if (sources[1].revents != 0) error.read();
        if (output.isTooMuch || deadline.hasPassed()) return false;
    }
    return true;
}

bool waitForEnd(pid_t process, const Deadline& deadline) {
    const UniqueFd handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    return handle && isReadyBy(deadline, handle.get(), POLLIN);
}

}  // namespace

ProgramEnd runShortProgram(const char* const* arguments, const char* const* environment, std::string_view input,
                           char* room, std::size_t roomSize, const Deadline& deadline) {
    ProgramEnd end;
    Pipe in, out, err;
    if (!in.open() || !out.open() || !err.open()) return end;
    if (::write(in.write.get(), input.data(), input.size()) != static_cast<ssize_t>(input.size())) return end;
    in.write.reset();
    if (!makeBlocking(in.read) || !makeBlocking(out.write) || !makeBlocking(err.write)) return end;

    pid_t process = -1;
    const int failure = spawn(arguments, environment, {in.read.get(), out.write.get(), err.write.get()}, process);
    if (failure != 0) {
        if (failure == ENOENT) end.how = ProgramEnd::How::Missing;
        return end;
    }
    in.read.reset();
    out.write.reset();
    err.write.reset();

    Output output{std::move(out.read), room, roomSize};
    Output error{std::move(err.read), end.error.data(), end.error.size()};
    const bool isOver = readBoth(output, error, deadline) && waitForEnd(process, deadline);
    if (!isOver) ::kill(process, SIGKILL);
    int status = 0;
    pid_t waited = 0;
    do {
        waited = ::waitpid(process, &status, 0);
    } while (waited < 0 && errno == EINTR);

    end.outputSize = output.size;
    end.errorSize = error.size;
    if (!isOver) {
        end.how = output.isTooMuch ? ProgramEnd::How::TooMuch : ProgramEnd::How::TooLong;
    } else if (waited == process && WIFEXITED(status)) {
        end.how = ProgramEnd::How::Exited;
        end.exitCode = WEXITSTATUS(status);
    }
    return end;
}

}  // namespace sd::security
