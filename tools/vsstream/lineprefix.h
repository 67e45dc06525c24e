// An output stream that starts each line with a prefix that can change between lines:
// when several streams are read in one command, each line says which one it is about.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace vsstream {

class LinePrefix : public std::streambuf {
public:
    explicit LinePrefix(std::ostream& target) : m_target(target) {}
    void SetPrefix(std::string prefix) { m_prefix = std::move(prefix); }

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        if (m_lineStart) m_target << m_prefix;
        m_target.put(traits_type::to_char_type(ch));
        m_lineStart = ch == '\n';
        return ch;
    }
    int sync() override {
        m_target.flush();
        return 0;
    }

private:
    std::ostream& m_target;
    std::string m_prefix;
    bool m_lineStart = true;
};

}  // namespace vsstream
