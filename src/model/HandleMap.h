#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace Kestrune {

// Inserts a handle under the key its object carries. An entry of the same key is replaced
// whole: the map then holds the new object and the old one loses only this reference. The
// same object again changes nothing, not even its reference count.
template <class Map, class T>
void handleInsert(Map& map, const std::string& key, const std::shared_ptr<T>& handle) {
    auto [entry, inserted] = map.try_emplace(key, handle);
    if (!inserted && entry->second != handle) {
        entry->second = handle;
    }
}

template <class Map>
typename Map::mapped_type handleAt(const Map& map, const std::string& key) {
    auto entry = map.find(key);
    return entry == map.end() ? nullptr : entry->second;
}

// The range error a collection mutator raises for a null handle. The closing double quote
// is part of the text operators and tools already match on.
inline std::range_error nullHandleError(const std::string& attribute,
                                        const std::string& qualifiedName) {
    return std::range_error("null _" + attribute + " parameter to mutator for Kestrune::" +
                            qualifiedName + " not allowed\"");
}

} // namespace Kestrune
