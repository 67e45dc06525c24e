// vsstream: lists, verifies and restores backup streams and stream sets.
#include "commands.h"
#include "lineprefix.h"
#include "objectbytes.h"

#include "hostapi/fd.h"
#include "vscodec/streamset.h"
#include "vsobj/s3.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>

namespace {

using vsstream::StreamInput;

// A manifest is far below this; an object this small is looked at as one.
constexpr size_t kManifestBytes = 64u << 10;

// What the command line names, opened: streams as they are, stream sets as their
// members. `code` carries what was found wrong on the way (a missing member makes the
// set incomplete; a member of another job makes it corrupt).
struct Inputs {
    std::vector<StreamInput> streams;
    int code = vsstream::kExitOk;
    std::vector<std::string> notes;  // what is wrong with the sets, for the summary line
    size_t expected = 0;             // streams named, the members of sets included
    // Streams on object storage, each read through a pipe that its reader owns.
    std::vector<std::unique_ptr<vsobj::ObjectReader>> objects;

    ~Inputs() {
        for (const StreamInput& s : streams)
            if (s.fd != STDIN_FILENO && !OfObject(s.fd)) ::close(s.fd);
    }
    bool OfObject(int fd) const {
        for (const auto& o : objects)
            if (o->fd() == fd) return true;
        return false;
    }
    // What went wrong reading the objects (the store's reason): the streams' verdicts
    // would call such a stream merely cut short.
    int ObjectProblems(std::ostream& err) {
        int worst = vsstream::kExitOk;
        for (const auto& o : objects)
            if (const std::string why = o->Error(); !why.empty()) {
                err << "vsstream: " << why << "\n";
                worst = vsstream::kExitUnreadable;
            }
        return worst;
    }
};

// The job id in a stream's header, or -1; leaves the file at its start.
int64_t HeaderJobId(int fd) {
    int64_t id = -1;
    {
        vshost::StreamReader reader(fd);
        vshost::StreamRecord record;
        if (reader.Next(record))
            if (auto* h = std::get_if<vshost::StreamHeaderRecord>(&record.body)) id = h->jobId;
    }
    ::lseek(fd, 0, SEEK_SET);
    return id;
}

// A member of a set opened for reading: its descriptor, or -1 with why (`missing`: it
// is not there at all).
struct Member {
    int fd = -1;
    bool missing = false;
    std::string why;
};
using OpenMember = std::function<Member(const std::string& path)>;

Member OpenFileMember(const std::string& path) {
    Member m;
    m.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m.fd < 0) {
        m.missing = errno == ENOENT;
        m.why = std::strerror(errno);
    }
    return m;
}

// The first bytes of an object (at most `n`) in a file of memory, which can be read
// twice: a manifest, or the header record of a stream.
vshost::Fd ObjectStart(vsobj::S3Client& client, const vsobj::S3Location& at, size_t n) {
    std::string bytes(n, '\0');
    bytes.resize(client.Read(at, 0, bytes.data(), n));
    vshost::Fd fd(::memfd_create("vsstream-object", MFD_CLOEXEC));
    if (!fd.valid() || ::write(fd.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(std::string("memfd: ") + std::strerror(errno));
    ::lseek(fd.get(), 0, SEEK_SET);
    return fd;
}

// A member of a set on the object store: its header's job id is read from its first
// bytes, so that the pipe it is read through starts at its start.
Member OpenObjectMember(Inputs& in, const std::string& path, int64_t& headerJob) {
    Member m;
    try {
        vsobj::S3Location at;
        vsobj::ParseS3Url(path, at);
        const vsobj::S3Settings settings = vsobj::SettingsFromEnvironment();
        vsobj::S3Client client(settings);
        headerJob = HeaderJobId(ObjectStart(client, at, 64u << 10).get());
        in.objects.push_back(std::make_unique<vsobj::ObjectReader>(settings, at));
        m.fd = in.objects.back()->fd();
    } catch (const vsobj::S3Error& e) {
        m.missing = e.httpStatus == 404;
        m.why = e.what();
    } catch (const std::exception& e) {
        m.why = e.what();
    }
    return m;
}

void AddSet(Inputs& in, const std::string& name, int fd, const OpenMember& open) {
    vshost::StreamSet set;
    std::string why;
    if (!vshost::ReadStreamSet(fd, set, why)) {
        in.notes.push_back(name + ": " + why);
        in.code = vsstream::WorseCode(in.code, vsstream::kExitCorrupt);
        return;
    }
    const std::filesystem::path folder = std::filesystem::path(name).parent_path();
    in.expected += set.members.size();
    for (const std::string& member : set.members) {
        const std::string path = (folder / member).string();
        int64_t job = -1;
        const bool object = name.rfind("s3://", 0) == 0;
        const Member m = object ? OpenObjectMember(in, path, job) : open(path);
        if (m.fd < 0) {
            in.notes.push_back(name + ": stream " + path + (m.missing ? " is missing" : " cannot be opened: " + m.why));
            in.code = vsstream::WorseCode(in.code, m.missing ? vsstream::kExitIncomplete : vsstream::kExitUnreadable);
            continue;
        }
        const int mfd = m.fd;
        if (!object) job = HeaderJobId(mfd);
        if (job >= 0 && job != set.jobId) {
            in.notes.push_back(name + ": stream " + path + " belongs to job " + std::to_string(job) +
                               ", not to the set's job " + std::to_string(set.jobId));
            in.code = vsstream::WorseCode(in.code, vsstream::kExitCorrupt);
            if (!object) ::close(mfd);
            continue;
        }
        in.streams.push_back({path, mfd});
    }
}

// "-" is standard input. False when a name cannot be opened at all.
bool Open(const std::vector<std::string>& names, Inputs& in) {
    for (const std::string& name : names) {
        if (name == "-") {
            ++in.expected;
            in.streams.push_back({"-", STDIN_FILENO});
            continue;
        }
        vsobj::S3Location object;
        try {
            if (vsobj::ParseS3Url(name, object)) {
                // A stream set's manifest is a small object; a stream is read through a pipe.
                const vsobj::S3Settings settings = vsobj::SettingsFromEnvironment();
                vsobj::S3Client client(settings);
                if (client.Size(object) <= kManifestBytes) {
                    const vshost::Fd start = ObjectStart(client, object, kManifestBytes);
                    if (vshost::LooksLikeStreamSet(start.get())) {
                        AddSet(in, name, start.get(), OpenFileMember);
                        continue;
                    }
                }
                in.objects.push_back(std::make_unique<vsobj::ObjectReader>(settings, object));
                ++in.expected;
                in.streams.push_back({name, in.objects.back()->fd()});
                continue;
            }
        } catch (const std::exception& e) {
            std::cerr << "vsstream: cannot open " << name << ": " << e.what() << "\n";
            return false;
        }
        const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            std::cerr << "vsstream: cannot open " << name << ": " << std::strerror(errno) << "\n";
            return false;
        }
        if (vshost::LooksLikeStreamSet(fd)) {
            AddSet(in, name, fd, OpenFileMember);
            ::close(fd);
        } else {
            ++in.expected;
            in.streams.push_back({name, fd});
        }
    }
    return true;
}

// The command line, once parsed.
struct Command {
    enum Kind { kList, kVerify, kRestore, kIndex, kServe } kind = kList;
    std::vector<std::string> names;
    std::string folder;  // --to or --onto
    bool fresh = false;  // --to: a new restore folder
    bool force = false;
    bool deep = false;         // verify: the streams are a chain, read through the index
    std::string disk, socket;  // serve
    vsstream::ImageFormat format = vsstream::ImageFormat::Native;
};

constexpr int kGoOn = -1;

// Parses the command line into `cmd`; kGoOn, or the status to exit with.
int Parse(int argc, char** argv, Command& cmd) {
    CLI::App app{
        "Lists, verifies and restores backup streams (\"-\" reads standard input). A stream set that a "
        "parallel vsdm run leaves stands for all of its streams; several streams are taken in turn.\n"
        "Exit codes: 0 sound and complete, 1 corrupt or a restore problem, 2 incomplete (no trailer, a stream of a set "
        "missing, or for verify a disk not held whole), 3 a stream or the restore folder cannot be read, "
        "64 bad command line."};
    app.require_subcommand(1);
    std::string to, onto;
    const char* what = "stream files or stream sets, or - for standard input";
    CLI::App* list = app.add_subcommand("list", "one line per entry: kind, size, data and hole bytes, name");
    list->add_option("STREAM", cmd.names, what)->required();
    CLI::App* verify = app.add_subcommand(
        "verify", "check every record, the entry structure, the trailer and the stream's index if it has one");
    verify->add_option("STREAM", cmd.names, what)->required();
    verify->add_flag("--deep", cmd.deep,
                     "the streams are a full and its incrementals, oldest first: read every disk of the chain "
                     "through the index as serve does and check each extent against the digest recorded for it");
    CLI::App* index = app.add_subcommand(
        "index", "write the index of a stream beside it (STREAM.idx; for s3://BUCKET/KEY the object KEY.idx)");
    index->add_option("STREAM", cmd.names, "stream files or objects")->required();
    CLI::App* serve = app.add_subcommand(
        "serve", "export one disk of a full backup and its incrementals (oldest first) read-only over NBD");
    serve->add_option("STREAM", cmd.names, "stream files or objects, each with its index")->required();
    serve->add_option("--disk", cmd.disk, "the disk: \\VM\\DISK, VM/DISK, or its name alone")->required();
    serve->add_option("--socket", cmd.socket, "the Unix socket to serve on")->required();
    CLI::App* restore = app.add_subcommand("restore", "rebuild files and sparse disk images below a folder");
    restore->add_option("STREAM", cmd.names, what)->required();
    CLI::Option* toOpt = restore->add_option("--to", to, "a new restore folder (missing or empty)");
    CLI::Option* ontoOpt =
        restore->add_option("--onto", onto, "an earlier restore to update (an incremental or resumed stream)");
    toOpt->excludes(ontoOpt);
    restore->add_flag("--force", cmd.force,
                      "apply an incremental disk even when its base change id is not the one the restore folder "
                      "records for its image");
    std::string format = "native";
    restore
        ->add_option(
            "--format", format,
            "what disk images are restored as: raw, vmdk (a monolithic-flat descriptor and its -flat.vmdk), "
            "qcow2, or native (the default: each disk as it was, a .vmdk as vmdk, a .qcow2 as qcow2, any other "
            "as raw; --onto: as the earlier restore holds it)")
        ->check(CLI::IsMember({"native", "raw", "vmdk", "qcow2"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        // CLI11's message, and one status for every way a command line can be wrong.
        app.exit(e);
        return vsstream::kExitUsage;
    }
    cmd.kind = restore->parsed()  ? Command::kRestore
               : verify->parsed() ? Command::kVerify
               : index->parsed()  ? Command::kIndex
               : serve->parsed()  ? Command::kServe
                                  : Command::kList;
    if (cmd.kind != Command::kRestore) return kGoOn;
    vsstream::ParseImageFormat(format, cmd.format);
    if (!toOpt->count() && !ontoOpt->count()) {
        std::cerr << "vsstream: restore needs --to DIR (a new restore) or --onto DIR (update an earlier one)\n";
        return vsstream::kExitUsage;
    }
    cmd.fresh = toOpt->count() > 0;
    cmd.folder = cmd.fresh ? to : onto;
    std::string why;
    if (!vsstream::CheckRestoreFolder(cmd.folder, cmd.fresh, why)) {
        std::cerr << "vsstream: " << why << "\n";
        // A --to folder that holds something asks for --onto: the command line is wrong.
        return cmd.fresh ? vsstream::kExitUsage : vsstream::kExitUnreadable;
    }
    return kGoOn;
}

// list or verify over every stream, each one's lines named when there are several.
int ListOrVerify(const Command& cmd, const Inputs& in, bool several) {
    int code = in.code;
    vsstream::LinePrefix outPrefix(std::cout), errPrefix(std::cerr);
    std::ostream out(&outPrefix), err(&errPrefix);
    const bool list = cmd.kind == Command::kList;
    std::vector<vsstream::StreamIndex> built;
    built.reserve(in.streams.size());
    for (const StreamInput& s : in.streams) {
        // A listing is long: its stream gets a heading; a verdict is one line, named.
        if (several && list) out << "== " << s.name << "\n";
        outPrefix.SetPrefix(several && !list ? s.name + ": " : "");
        errPrefix.SetPrefix(several ? s.name + ": " : "");
        // The index of a file or an object is checked; a pipe has none.
        std::unique_ptr<vsstream::StreamBytes> indexed;
        std::string why;
        if (!list && s.name != "-")
            indexed = in.OfObject(s.fd) ? vsstream::OpenStreamBytes(s.name, why) : vsstream::FileBytes(s.fd, s.name);
        built.emplace_back();
        const int one = list ? vsstream::RunList(s.fd, out, err)
                             : vsstream::RunVerify(s.fd, out, err, indexed.get(), &built.back());
        code = vsstream::WorseCode(code, one);
    }
    if (cmd.deep && code != vsstream::kExitCorrupt && code != vsstream::kExitUnreadable) {
        outPrefix.SetPrefix("");
        errPrefix.SetPrefix("");
        std::vector<std::string> chain;
        std::vector<const vsstream::StreamIndex*> indexes;
        for (size_t i = 0; i < in.streams.size(); ++i) {
            chain.push_back(in.streams[i].name);
            indexes.push_back(&built[i]);
        }
        code = vsstream::WorseCode(code, vsstream::RunDeepVerify(chain, indexes, out, err));
    }
    out.flush();
    err.flush();
    return code;
}

int Run(int argc, char** argv) {
    vsstream::ReadObjects();
    Command cmd;
    if (const int status = Parse(argc, argv, cmd); status != kGoOn) return status;
    if (cmd.kind == Command::kIndex) {
        int code = vsstream::kExitOk;
        for (const std::string& name : cmd.names)
            code = vsstream::WorseCode(code, vsstream::RunIndex(name, std::cout, std::cerr));
        return code;
    }
    if (cmd.kind == Command::kServe) return vsstream::RunServe(cmd.names, cmd.disk, cmd.socket, std::cerr);
    Inputs in;
    if (!Open(cmd.names, in)) return vsstream::kExitUnreadable;
    const bool several = in.streams.size() > 1 || !in.notes.empty() || cmd.names.size() > 1;
    for (const std::string& note : in.notes) std::cerr << "vsstream: " << note << "\n";

    int code = cmd.kind == Command::kRestore
                   ? vsstream::WorseCode(in.code, vsstream::RunRestoreAll(in.streams, cmd.folder, std::cout, std::cerr,
                                                                          cmd.force, cmd.format))
                   : ListOrVerify(cmd, in, several);
    code = vsstream::WorseCode(code, in.ObjectProblems(std::cerr));
    if (several) {
        const char* verdict = code == vsstream::kExitOk           ? "complete"
                              : code == vsstream::kExitIncomplete ? "INCOMPLETE"
                              : code == vsstream::kExitCorrupt    ? "NOT SOUND"
                                                                  : "UNREADABLE";
        std::cout << "streams: " << in.streams.size() << " of " << in.expected << " read, " << verdict << "\n";
    }
    std::cout.flush();
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        // Out of memory or a fault of this program: no verdict on the stream is given.
        std::cerr << "vsstream: " << e.what() << "\n";
        return vsstream::kExitUnreadable;
    }
}
