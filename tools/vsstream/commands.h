// The vsstream commands, callable without the command line.
#pragma once

#include "imagesink.h"
#include "streamindex.h"
#include "vscodec/streamreader.h"

#include <ostream>
#include <string>
#include <vector>

namespace vsstream {

// Exit codes of every command.
enum ExitCode : int {
    kExitOk = 0,
    kExitCorrupt = 1,  // a check value, field or the structure is wrong; or a restore problem
    kExitIncomplete =
        2,  // everything read is sound, but the stream ends without a trailer or (verify) holds a disk not read whole
    kExitUnreadable = 3,  // the stream or the restore folder cannot be opened or read
    kExitUsage = 64,      // the command line is wrong (as vsdm's)
};

// Each reads the stream from `fd` to its end or its first fault.
int RunList(int fd, std::ostream& out, std::ostream& err);
// `indexed` is the stream read at any offset (null for a pipe): its index, when there is
// one, must match the stream; `built` receives the index the stream's records give.
int RunVerify(int fd, std::ostream& out, std::ostream& err, StreamBytes* indexed = nullptr,
              StreamIndex* built = nullptr);
// Reads every disk of a chain (a full, then its incrementals) through the indexes, as
// serve does, and checks each extent against the digest its index recorded.
int RunDeepVerify(const std::vector<std::string>& chain, const std::vector<const StreamIndex*>& built,
                  std::ostream& out, std::ostream& err);
// `force` applies an incremental disk whose base change id is not the one the restore
// folder records for its image; `format` is what disk images are restored as.
int RunRestore(int fd, const std::string& dir, std::ostream& out, std::ostream& err, bool force = false,
               ImageFormat format = ImageFormat::Native);

// A stream to read, by the name it is reported under.
struct StreamInput {
    std::string name;
    int fd = -1;
};
// Restores several streams (the members of a stream set) one after the other into one
// folder; with more than one, each problem line names its stream. The exit code is the
// worst of theirs.
int RunRestoreAll(const std::vector<StreamInput>& inputs, const std::string& dir, std::ostream& out, std::ostream& err,
                  bool force = false, ImageFormat format = ImageFormat::Native);

// `vsstream serve`: replaces this process with nbdkit exporting `disk` of the chain
// `streams` (oldest first) on the Unix socket `socket`; returns only when it cannot.
int RunServe(const std::vector<std::string>& streams, const std::string& disk, const std::string& socket,
             std::ostream& err);

// The worse of two exit codes: unreadable, then corrupt, then incomplete, then sound.
int WorseCode(int a, int b);
// A fresh restore goes to a folder that is missing or empty; an update onto an earlier
// restore needs that folder. False with the reason otherwise.
bool CheckRestoreFolder(const std::string& dir, bool fresh, std::string& why);

// The exit code for how the stream ended, with `problems` found beside the decoder's
// own checks; writes the decoder's complaint, if any, to `err`.
int Conclude(const vshost::StreamReader& reader, bool problems, std::ostream& err);

}  // namespace vsstream
