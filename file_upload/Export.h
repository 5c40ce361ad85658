#pragma once

// Marks what the module exports; everything else in it is hidden.
#define KESTRIN_EXPORT __attribute__((visibility("default")))
