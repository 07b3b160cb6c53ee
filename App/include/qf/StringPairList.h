// "QFStringPairList" objects made and read by either side of the boundary. Header-only, so
// that the host and the module lay them out the same way; the block carries the traits of
// the side that made it.
#pragma once

#include "qf/PropertyInterfaces.h"
#include "qf/ServiceObjectBlock.h"

#include <string>
#include <utility>
#include <vector>

namespace QF {

using StringPairs = std::vector<std::pair<std::u16string, std::u16string>>;

namespace detail {

struct StringPairListObject {
    explicit StringPairListObject(StringPairs p) : pairs(std::move(p)) {}
    StringPairs pairs;
};

inline StringPairs& pairsOf(ServiceObject* so) {
    return SODetails::implOf<StringPairListTable, StringPairListObject>(so).pairs;
}

inline void putText(const TextSink* sink, const std::u16string& text) {
    if (sink && sink->put) sink->put(sink->context, text.data(), text.size());
}

inline constexpr StringPairListTable kStringPairListTable{
    [](ServiceObject* self, uint64_t* out) -> uint32_t {
        if (!self || !out) return 3;
        *out = pairsOf(self).size();
        return 0;
    },
    [](ServiceObject* self, uint64_t index, const TextSink* first,
       const TextSink* second) -> uint32_t {
        if (!self) return 3;
        const StringPairs& pairs = pairsOf(self);
        if (index >= pairs.size()) return 5;
        putText(first, pairs[index].first);
        putText(second, pairs[index].second);
        return 0;
    },
    [](ServiceObject* self, const char16_t* first, uint64_t firstLength, const char16_t* second,
       uint64_t secondLength) -> uint32_t {
        if (!self || (!first && firstLength) || (!second && secondLength)) return 3;
        try {
            pairsOf(self).emplace_back(std::u16string(first ? first : u"", firstLength),
                                       std::u16string(second ? second : u"", secondLength));
        } catch (...) {
            return 4;
        }
        return 0;
    },
};

} // namespace detail

// A new list holding pairs, with one reference for the caller. Throws std::bad_alloc.
template <typename Traits>
ServiceObject* MakeStringPairList(StringPairs pairs, uint32_t implementationId = 0x51460A05) {
    return SODetails::makeServiceObject<StringPairListTable, detail::StringPairListObject,
                                        Traits>(kStringPairListId, "QFStringPairList",
                                                implementationId, detail::kStringPairListTable,
                                                std::move(pairs));
}

// The pairs of any "QFStringPairList" (whoever made it). Empty for null or for an object of
// another interface.
inline StringPairs ReadStringPairList(ServiceObject* list) {
    StringPairs pairs;
    if (!list || SODetails::header(list)->interfaceId != kStringPairListId ||
        !SODetails::hasMethod(list, 1))
        return pairs;
    auto& ops = *SODetails::methods<StringPairListTable>(list);
    uint64_t count = 0;
    if (ops.GetCount(list, &count) != 0) return pairs;
    auto store = [](void* context, const char16_t* text, uint64_t length) {
        static_cast<std::u16string*>(context)->assign(text, length);
    };
    for (uint64_t i = 0; i < count; ++i) {
        std::pair<std::u16string, std::u16string> pair;
        const TextSink first{&pair.first, store};
        const TextSink second{&pair.second, store};
        if (ops.GetPair(list, i, &first, &second) != 0) break;
        pairs.push_back(std::move(pair));
    }
    return pairs;
}

} // namespace QF
