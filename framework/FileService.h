#pragma once

#include "common/DataBuffer.h"
#include "common/Future.h"

#include <boost/any.hpp>

#include <string>
#include <unordered_map>
#include <utility>

namespace kestrin::file_common::v1 {

// The metadata of a stored file.
struct FileInfo {
    explicit FileInfo(const std::u16string& filePath)
        : path(filePath) {}
    explicit FileInfo(std::u16string&& filePath) noexcept
        : path(std::move(filePath)) {}

    std::u16string path;
    bool flag = false;
    std::unordered_map<std::string, boost::any> attributes;
};

// A file with its contents; the bytes are moved in, never copied.
struct File {
    File(FileInfo&& fileInfo, common::DataBuffer&& fileContent) noexcept
        : info(std::move(fileInfo))
        , content(std::move(fileContent)) {}

    FileInfo info;
    common::DataBuffer content;
};

} // namespace kestrin::file_common::v1

namespace kestrin::file::v1 {

// The framework's file service. writeFile may take the content out of file; the future
// resolves, usually from another thread, with the stored file's info or with the failure.
class FileService {
public:
    virtual ~FileService();
    // overwrite: replace an existing file of the same path.
    virtual Future<file_common::v1::FileInfo> writeFile(file_common::v1::File&& file,
                                                        bool overwrite) = 0;
};

} // namespace kestrin::file::v1
