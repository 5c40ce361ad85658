#include "framework/FileService.h"

namespace kestrin::file::v1 {

FileService::~FileService() = default;

} // namespace kestrin::file::v1
