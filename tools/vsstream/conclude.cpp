// How a command ends: the decoder's verdict and the problems the command found.
#include "commands.h"

namespace vsstream {

int Conclude(const vshost::StreamReader& reader, bool problems, std::ostream& err) {
    using State = vshost::StreamReader::State;
    const State state = reader.state();
    if (state != State::Complete) err << vshost::StateName(state) << ": " << reader.error() << "\n";
    switch (state) {
        case State::ReadError:
            return kExitUnreadable;
        case State::Corrupt:
            return kExitCorrupt;
        case State::Incomplete:
            return problems ? kExitCorrupt : kExitIncomplete;
        default:
            return problems ? kExitCorrupt : kExitOk;
    }
}

int WorseCode(int a, int b) {
    const auto rank = [](int code) {
        switch (code) {
            case kExitOk:
                return 0;
            case kExitIncomplete:
                return 1;
            case kExitCorrupt:
                return 2;
            default:
                return 3;
        }
    };
    return rank(b) > rank(a) ? b : a;
}

}  // namespace vsstream
