// Turns a clear password into the form the host stores, under the key of a host home.
// The password is read from standard input (without echo on a terminal), never from
// the command line, where other users could see it.
#include "hostapi/appmgr.h"
#include "vshost/home.h"

#include <CLI/CLI.hpp>

#include <termios.h>
#include <unistd.h>
#include <cstdio>
#include <iostream>
#include <string>

namespace {

std::string ReadPassword() {
    const bool tty = isatty(STDIN_FILENO) != 0;
    termios saved{};
    if (tty) {
        std::cerr << "Password: " << std::flush;
        tcgetattr(STDIN_FILENO, &saved);
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string line;
    std::getline(std::cin, line);
    if (tty) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::cerr << "\n";
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace

static int Run(int argc, char** argv) {
    CLI::App app{"Prints the stored form of a password read from standard input."};
    std::string home;
    app.add_option("--home", home, "host home whose key encrypts the password")->required();
    CLI11_PARSE(app, argc, argv);

    try {
        vshost::OpenHome(home);
    } catch (const std::exception& e) {
        std::cerr << "vshost-passwd: " << e.what() << "\n";
        return 2;
    }
    const std::string plain = ReadPassword();
    if (plain.empty()) {
        std::cerr << "vshost-passwd: no password on standard input\n";
        return 2;
    }
    const std::string stored = vsAppMgr::encryptPassword(plain);
    if (stored.empty()) {
        std::cerr << "vshost-passwd: cannot encrypt with the key of " << home << "\n";
        return 1;
    }
    std::cout << stored << "\n";
    return 0;
}

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "vshost-passwd: " << e.what() << "\n";
        return 2;
    }
}
