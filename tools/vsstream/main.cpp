// vsstream: lists, verifies and restores backup streams.
#include "commands.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace {

// "-" is standard input.
int OpenStream(const std::string& name) {
    if (name == "-") return STDIN_FILENO;
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) std::cerr << "vsstream: cannot open " << name << ": " << std::strerror(errno) << "\n";
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Lists, verifies and restores backup streams (\"-\" reads standard input).\n"
                 "Exit codes: 0 sound and complete, 1 corrupt or a restore problem, 2 incomplete "
                 "(no trailer), 3 cannot read."};
    app.require_subcommand(1);
    std::string stream, to, onto;
    CLI::App* list = app.add_subcommand("list", "one line per entry: kind, size, data and hole bytes, name");
    list->add_option("STREAM", stream, "stream file, or - for standard input")->required();
    CLI::App* verify = app.add_subcommand("verify", "check every record, the entry structure and the trailer");
    verify->add_option("STREAM", stream, "stream file, or - for standard input")->required();
    CLI::App* restore = app.add_subcommand("restore", "rebuild files and sparse disk images below a folder");
    restore->add_option("STREAM", stream, "stream file, or - for standard input")->required();
    CLI::Option* toOpt = restore->add_option("--to", to, "a new restore folder (missing or empty)");
    CLI::Option* ontoOpt =
        restore->add_option("--onto", onto, "an earlier restore to update (an incremental or resumed stream)");
    toOpt->excludes(ontoOpt);
    CLI11_PARSE(app, argc, argv);

    if (restore->parsed()) {
        if (!toOpt->count() && !ontoOpt->count()) {
            std::cerr << "vsstream: restore needs --to DIR (a new restore) or --onto DIR (update an earlier one)\n";
            return vsstream::kExitUnreadable;
        }
        std::string why;
        if (!vsstream::CheckRestoreFolder(toOpt->count() ? to : onto, toOpt->count() > 0, why)) {
            std::cerr << "vsstream: " << why << "\n";
            return vsstream::kExitUnreadable;
        }
    }
    const int fd = OpenStream(stream);
    if (fd < 0) return vsstream::kExitUnreadable;
    int code = vsstream::kExitOk;
    if (list->parsed()) code = vsstream::RunList(fd, std::cout, std::cerr);
    else if (verify->parsed()) code = vsstream::RunVerify(fd, std::cout, std::cerr);
    else code = vsstream::RunRestore(fd, toOpt->count() ? to : onto, std::cout, std::cerr);
    if (fd != STDIN_FILENO) ::close(fd);
    std::cout.flush();
    return code;
}
