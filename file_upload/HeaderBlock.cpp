#include "file_upload/HeaderBlock.h"

#include <cstring>
#include <utility>

namespace kestrin::file_upload::v1 {

std::string_view trimBlanks(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\r' || c == '\n'; };
    size_t first = 0;
    while (first < text.size() && blank(text[first])) {
        ++first;
    }
    size_t end = text.size();
    while (end > first && blank(text[end - 1])) {
        --end;
    }
    return text.substr(first, end - first);
}

void assignWithoutQuotes(std::string& out, std::string_view text) {
    out.clear();
    for (;;) {
        const void* quote = std::memchr(text.data(), '"', text.size());
        if (quote == nullptr) {
            out.append(text);
            return;
        }
        const size_t at = static_cast<size_t>(static_cast<const char*>(quote) - text.data());
        out.append(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
}

void parseHeaderBlockReusingNodes(std::string_view block, HeaderMap& headers,
                                  std::vector<HeaderMap::node_type>& spare) {
    while (!headers.empty()) {
        spare.push_back(headers.extract(headers.begin()));
    }
    forEachHeaderParameter(block, [&](std::string_view key, std::string_view value) {
        HeaderMap::node_type node;
        if (spare.empty()) {
            HeaderMap fresh;
            node = fresh.extract(fresh.emplace().first);
        } else {
            node = std::move(spare.back());
            spare.pop_back();
        }
        assignWithoutQuotes(node.key(), key);
        assignWithoutQuotes(node.mapped(), value);
        auto inserted = headers.insert(std::move(node));
        if (!inserted.inserted) {
            // A key seen before in this block: the later value wins.
            inserted.position->second.swap(inserted.node.mapped());
            spare.push_back(std::move(inserted.node));
        }
    });
}

} // namespace kestrin::file_upload::v1
