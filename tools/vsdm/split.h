// How a parallel run shares a job's items among its streams.
#pragma once

#include "jobspec.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vsdm {

// Most streams a run may ask for: each is a process with its own plug-in, snapshot
// mount and catalog connections.
inline constexpr unsigned kMaxStreams = 64;

// Item indices for each of min(streams, items) shares, each in job order. Greedy by
// expected bytes: the largest item not yet placed goes to the share with the fewest
// bytes so far (the lower share on a tie). An item without an expected size counts as
// the mean of those that have one, so a job without any sizes is dealt round-robin.
std::vector<std::vector<size_t>> SplitItems(const std::vector<JobItem>& items, unsigned streams);

// "0,3,5" and back: the share handed to a child process. Parsing throws
// std::runtime_error on anything but comma-separated indices below `count`.
std::string FormatShare(const std::vector<size_t>& share);
std::vector<size_t> ParseShare(const std::string& text, size_t count);

}  // namespace vsdm
