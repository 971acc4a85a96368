// The process-wide table of class coders: dynamic type -> coder for writing, class name -> coder
// for reading. Filled by registerCoder() (gatewise/archive.h), usually once per class from a
// static initialiser; read by the archiver and unarchiver. Locked: any thread. Coders are handed
// out as shared pointers, so a replacement never pulls one from under a running archive.
#pragma once

#include <gatewise/archive.h>

#include <memory>
#include <string_view>
#include <typeindex>

namespace gw::archive {

std::shared_ptr<const ClassCoder> coderForType(std::type_index type);
std::shared_ptr<const ClassCoder> coderForClassName(std::string_view className);

}  // namespace gw::archive
