// How a command ends: the decoder's verdict and the problems the command found.
#include "commands.h"

namespace vsstream {

int Conclude(const vshost::StreamReader& reader, bool problems, std::ostream& err) {
    using State = vshost::StreamReader::State;
    const State state = reader.state();
    if (state != State::Complete) err << vshost::StateName(state) << ": " << reader.error() << "\n";
    switch (state) {
    case State::ReadError: return kExitUnreadable;
    case State::Corrupt: return kExitCorrupt;
    case State::Incomplete: return problems ? kExitCorrupt : kExitIncomplete;
    default: return problems ? kExitCorrupt : kExitOk;
    }
}

}  // namespace vsstream
