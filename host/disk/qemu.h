// Running qemu's tools on files the host has already opened: each child gets the
// descriptors it is to read at fixed numbers, so it reaches those files as
// /proc/self/fd/N and never opens a name of its own choosing.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vshost::qemu {

// The first descriptor number a child gets its files at (0 to 2 are its standard
// streams).
constexpr int kFirstChildFd = 3;

// The path a child reaches the descriptor it got as number `childFd` by.
std::string ChildFdPath(int childFd);

// The absolute path of qemu's `tool` ("qemu-img", "qemu-nbd") found on PATH; empty
// with `why` when it is not installed.
std::string Tool(const std::string& tool, std::string& why);

struct SpawnSpec {
    std::vector<std::string> argv;  // argv[0] an absolute path
    std::vector<int> inherit;       // the child gets inherit[i] as descriptor kFirstChildFd + i
    int out = -1;                   // its standard output (-1: /dev/null)
    int err = -1;                   // its standard error (-1: /dev/null)
    bool socketActivation = false;  // inherit[0] is a listening socket handed over as systemd does
};

// Starts the child. It gets nothing else of this process: no other descriptor, an
// environment of its own, a process group of its own (a terminal's SIGINT meant for the
// data mover is the data mover's to handle), and it is killed when the thread that
// started it ends (PR_SET_PDEATHSIG), so it never outlives a data mover that dies.
// -1 with `why` when it cannot be started.
pid_t Spawn(const SpawnSpec& spec, std::string& why);

// Waits up to `seconds` for `pid` to end, then kills it and waits. Its wait status.
int Reap(pid_t pid, int seconds);

// Runs the child to its end with its standard output (at most `cap` bytes) and error
// (the first 4 KiB) taken in, for at most `seconds`. False with `why` (the child's own
// words when it said any) when it cannot run, runs too long or ends with a failure.
bool Run(SpawnSpec spec, std::string& out, std::string& why, size_t cap, int seconds);

}  // namespace vshost::qemu
