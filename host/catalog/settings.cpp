// The settings store and its settings.ini form.
#include "detail.h"
#include "files/atomicfile.h"
#include "hostapi/fileutil.h"
#include "vshost/home.h"

#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace vshost {
namespace detail {
namespace {

std::string Trim(const std::string& s) {
    const char* blanks = " \t\r\n\f\v";
    size_t b = s.find_first_not_of(blanks);
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(blanks);
    return s.substr(b, e - b + 1);
}

// Rejects names that settings.ini could not give back unchanged after Save.
void CheckSavable(const std::string& section, const std::string& key, const std::string& value) {
    auto bad = [](const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; };
    if (bad(section) || bad(key) || bad(value)) throw std::invalid_argument("setting contains a line break");
    if (section.find(']') != std::string::npos || Trim(section) != section)
        throw std::invalid_argument("setting section [" + section + "] cannot be stored");
    if (key.empty() || Trim(key) != key || key.find('=') != std::string::npos || key[0] == ';' || key[0] == '#' ||
        key[0] == '[')
        throw std::invalid_argument("setting key '" + key + "' cannot be stored");
}

}  // namespace

std::optional<unsigned long> ParseWholeNumber(const std::string& text) {
    std::string t = Trim(text);
    // strtoul would accept a sign and wrap a negative number around.
    if (t.empty() || t[0] == '-' || t[0] == '+') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long v = std::strtoul(t.c_str(), &end, 0);
    if (errno != 0 || end != t.c_str() + t.size()) return std::nullopt;
    return v;
}

SettingsMap ReadSettingsFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    SettingsMap map;
    std::string raw;
    std::string section;
    bool inSection = false;
    for (unsigned lineNo = 1; std::getline(in, raw); ++lineNo) {
        auto fail = [&](const char* why) {
            return std::runtime_error(path + ":" + std::to_string(lineNo) + ": " + why);
        };
        std::string line = Trim(raw);
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            if (line.back() != ']') throw fail("section header without closing ']'");
            section = Trim(line.substr(1, line.size() - 2));
            if (section.empty()) throw fail("empty section name");
            inSection = true;
            map[section];
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos) throw fail("expected key=value");
        std::string key = Trim(line.substr(0, eq));
        if (key.empty()) throw fail("empty key");
        if (!inSection) throw fail("key outside of any [section]");
        map[section][key] = Trim(line.substr(eq + 1));
    }
    if (in.bad()) throw std::runtime_error("cannot read " + path);
    return map;
}

void WriteSettingsFile(const std::string& path, const SettingsMap& settings) {
    std::string text;
    for (const auto& [section, keys] : settings) {
        if (keys.empty()) continue;
        text += (text.empty() ? "[" : "\n[") + section + "]\n";
        for (const auto& [key, value] : keys) text += key + '=' + value + '\n';
    }
    // Written aside and renamed so a reader never sees half a file; only the owner reads it.
    AtomicFile file(path, 0600);
    if (!file.Ok() || !file.Write(text.data(), text.size()) || !file.Commit())
        throw std::runtime_error("cannot write " + path + ": " + file.Error());
}

std::optional<std::string> Setting(const std::string& section, const std::string& key) {
    LockedState st;
    auto s = st->settings.find(section);
    if (s == st->settings.end()) return std::nullopt;
    auto k = s->second.find(key);
    if (k == s->second.end()) return std::nullopt;
    return k->second;
}

}  // namespace detail

namespace settings {

bool Get(const std::string& section, const std::string& key, std::string& value) {
    auto v = detail::Setting(section, key);
    if (!v) return false;
    value = std::move(*v);
    return true;
}

void Set(const std::string& section, const std::string& key, const std::string& value) {
    detail::CheckSavable(section, key, value);
    detail::LockedState st;
    st->settings[section][key] = value;
}

void Erase(const std::string& section, const std::string& key) {
    detail::LockedState st;
    auto s = st->settings.find(section);
    if (s == st->settings.end()) return;
    s->second.erase(key);
    if (s->second.empty()) st->settings.erase(s);
}

void Save() {
    detail::LockedState st;
    if (st->dir.empty()) throw std::runtime_error("no host home is open");
    detail::WriteSettingsFile(st->dir + "/settings.ini", st->settings);
}

}  // namespace settings
}  // namespace vshost
