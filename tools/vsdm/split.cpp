#include "split.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace vsdm {

std::vector<std::vector<size_t>> SplitItems(const std::vector<JobItem>& items, unsigned streams) {
    const size_t n = std::min<size_t>(streams == 0 ? 1 : streams, items.size());
    std::vector<std::vector<size_t>> shares(n);
    if (n == 0) return shares;

    uint64_t known = 0, knownCount = 0;
    for (const JobItem& item : items)
        if (item.expectedBytes > 0) {
            known += item.expectedBytes;
            ++knownCount;
        }
    const uint64_t fallback = knownCount ? std::max<uint64_t>(1, known / knownCount) : 1;
    const auto weight = [&](size_t i) { return items[i].expectedBytes > 0 ? items[i].expectedBytes : fallback; };

    std::vector<size_t> order(items.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return weight(a) > weight(b); });
    std::vector<uint64_t> load(n, 0);
    for (size_t i : order) {
        const size_t least = static_cast<size_t>(std::min_element(load.begin(), load.end()) - load.begin());
        shares[least].push_back(i);
        load[least] += weight(i);
    }
    for (auto& share : shares) std::sort(share.begin(), share.end());
    return shares;
}

std::string FormatShare(const std::vector<size_t>& share) {
    std::string text;
    for (size_t i : share) text += (text.empty() ? "" : ",") + std::to_string(i);
    return text;
}

std::vector<size_t> ParseShare(const std::string& text, size_t count) {
    std::vector<size_t> share;
    size_t at = 0;
    while (at <= text.size()) {
        const size_t comma = std::min(text.find(',', at), text.size());
        const std::string part = text.substr(at, comma - at);
        if (part.empty() || part.size() > 9 || part.find_first_not_of("0123456789") != std::string::npos)
            throw std::runtime_error("share \"" + text + "\" is not a list of item numbers");
        const size_t index = std::stoul(part);
        if (index >= count) throw std::runtime_error("share \"" + text + "\" names an item the job does not have");
        share.push_back(index);
        at = comma + 1;
    }
    return share;
}

}  // namespace vsdm
