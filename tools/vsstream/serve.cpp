// vsstream serve: one disk of a backup chain exported read-only over NBD by nbdkit and
// this project's plug-in, without restoring it.
#include "commands.h"
#include "imagesink.h"
#include "streamindex.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace vsstream {

namespace {

// The plug-in lies in the library folder beside this program's folder.
std::string PluginPath() {
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return (self.parent_path().parent_path() / "lib" / "nbdkit-vsstream-plugin.so").string();
}

}  // namespace

int RunServe(const std::vector<std::string>& streams, const std::string& disk, const std::string& socket,
             std::ostream& err) {
    // Said here, once, rather than by nbdkit as it starts.
    ChainDisk probe;
    std::string why;
    if (!probe.Open(streams, disk, why)) {
        err << "vsstream: " << why << "\n";
        return kExitUnreadable;
    }
    const std::string nbdkit = FindTool("nbdkit");
    if (nbdkit.empty()) {
        err << "vsstream: nbdkit is not installed (Debian package nbdkit)\n";
        return kExitUnreadable;
    }
    const std::string plugin = PluginPath();
    if (::access(plugin.c_str(), R_OK) != 0) {
        err << "vsstream: the nbdkit plug-in " << plugin << " is missing\n";
        return kExitUnreadable;
    }
    err << "vsstream: serving " << probe.key() << " (" << probe.size() << " bytes, " << streams.size()
        << " stream(s)) read-only on " << socket << "\n";
    err.flush();
    std::vector<std::string> args = {nbdkit, "--foreground", "--readonly", "--unix", socket, plugin};
    // nbdkit runs in another folder; an object is named the same from anywhere.
    for (const std::string& s : streams)
        args.push_back("stream=" + (s.rfind("s3://", 0) == 0 ? s : std::filesystem::absolute(s).string()));
    args.push_back("disk=" + probe.key());
    std::vector<char*> argv = Argv(args);
    // nbdkit takes this process's place: a signal that stops the server reaches it.
    ::execv(nbdkit.c_str(), argv.data());
    err << "vsstream: cannot start " << nbdkit << ": " << std::strerror(errno) << "\n";
    return kExitUnreadable;
}

}  // namespace vsstream
