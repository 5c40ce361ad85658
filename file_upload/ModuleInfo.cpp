// What the framework reads to identify the module file: its path below the installation
// root, its build date and its version, set when the module is built.
#include "file_upload/Export.h"

#ifndef KESTRIN_MODULE_VERSION
#error "KESTRIN_MODULE_VERSION must be set by the build"
#endif

extern "C" {
KESTRIN_EXPORT extern const char* const libqvkestrinfileuploadimpl_relative_path;
KESTRIN_EXPORT extern const char* const libqvkestrinfileuploadimpl_build_date;
KESTRIN_EXPORT extern const char* const libqvkestrinfileuploadimpl_version;

const char* const libqvkestrinfileuploadimpl_relative_path =
    "bin/zarnix/libqvkestrinfileuploadimpl.so";
const char* const libqvkestrinfileuploadimpl_build_date = __DATE__;
const char* const libqvkestrinfileuploadimpl_version = KESTRIN_MODULE_VERSION;
}
