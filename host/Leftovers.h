#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::host {

// Which temporary files in an upload directory a starting instance may remove. Several
// instances may share one directory (on one machine or over a network filesystem), so a
// temporary file is removed only when the instance that writes it is known to be gone. Each
// instance has an id, holds a lock on its owner file for its lifetime and puts its id in the
// names of its temporary files:
//
//   .kestrin-upload-owner-<id>        the owner file, locked while the instance runs
//   .kestrin-upload-<id>-XXXXXX       a temporary file of that instance
//   .kestrin-upload-<anything else>   a temporary file without an owner (an older version's,
//                                     or the start-up check's)
//
// Deciding is kept apart from the system calls: these functions only look at names and times,
// and InstanceOwner does the listing, the locking and the removing.
namespace leftovers {

constexpr std::string_view tempPrefix = ".kestrin-upload-";
constexpr std::string_view ownerPrefix = ".kestrin-upload-owner-";
// Hexadecimal digits in an id.
constexpr std::size_t idLength = 16;
// A temporary file without an owner is removed once it has not changed for this long: a write
// under way changes its file every few megabytes, and no write stalls for an hour.
constexpr std::chrono::hours unownedGrace{1};

struct Entry {
    std::string name;
    std::chrono::system_clock::time_point modified;
};

// What a start removes. Owner files come last, each after its temporary files, so a start
// that stops half-way leaves a temporary file only where its owner file still says whose it is.
struct Removal {
    std::vector<std::string> temporaries;
    std::vector<std::string> ownerFiles;
};

// Whether text is an id: idLength lowercase hexadecimal digits.
bool isId(std::string_view text);

// The id in an owner file's or an owned temporary file's name; nothing for other names.
std::optional<std::string> ownerOf(std::string_view name);

// The ids of other instances named in the listing, whose owner files must be checked.
std::set<std::string> ownersToCheck(const std::vector<Entry>& listing, std::string_view ownId);

// What to remove, given the owners found gone (their owner file unlocked or missing): their
// temporary and owner files, and temporary files without an owner that have not changed for
// unownedGrace before now. Never anything of ownId, nor any other name.
Removal decide(const std::vector<Entry>& listing, const std::set<std::string>& goneOwners,
               std::string_view ownId, std::chrono::system_clock::time_point now);

} // namespace leftovers
} // namespace kestrin::host
