#include "host/Leftovers.h"

#include <algorithm>

namespace kestrin::host::leftovers {

bool isId(std::string_view text) {
    return text.size() == idLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

std::optional<std::string> ownerOf(std::string_view name) {
    if (name.compare(0, ownerPrefix.size(), ownerPrefix) == 0) {
        const std::string_view id = name.substr(ownerPrefix.size());
        return isId(id) ? std::optional<std::string>(id) : std::nullopt;
    }
    if (name.compare(0, tempPrefix.size(), tempPrefix) != 0) {
        return std::nullopt;
    }
    const std::string_view rest = name.substr(tempPrefix.size());
    // The id, a dash, and the random part mkstemp filled in.
    if (rest.size() <= idLength + 1 || rest[idLength] != '-' || !isId(rest.substr(0, idLength))) {
        return std::nullopt;
    }
    return std::string(rest.substr(0, idLength));
}

std::set<std::string> ownersToCheck(const std::vector<Entry>& listing, std::string_view ownId) {
    std::set<std::string> owners;
    for (const Entry& entry : listing) {
        if (std::optional<std::string> owner = ownerOf(entry.name); owner && *owner != ownId) {
            owners.insert(std::move(*owner));
        }
    }
    return owners;
}

Removal decide(const std::vector<Entry>& listing, const std::set<std::string>& goneOwners,
               std::string_view ownId, std::chrono::system_clock::time_point now) {
    Removal removal;
    for (const Entry& entry : listing) {
        if (entry.name.compare(0, tempPrefix.size(), tempPrefix) != 0) {
            continue;
        }
        const std::optional<std::string> owner = ownerOf(entry.name);
        const bool isOwnerFile = entry.name.compare(0, ownerPrefix.size(), ownerPrefix) == 0;
        if (owner) {
            if (*owner == ownId || goneOwners.count(*owner) == 0) {
                continue;
            }
            (isOwnerFile ? removal.ownerFiles : removal.temporaries).push_back(entry.name);
        } else if (!isOwnerFile && now - entry.modified >= unownedGrace) {
            // A malformed owner file name is no temporary file of anyone's: left alone.
            removal.temporaries.push_back(entry.name);
        }
    }
    return removal;
}

} // namespace kestrin::host::leftovers
