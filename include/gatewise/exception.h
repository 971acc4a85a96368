// GWException: the one exception type the library raises.
//
// Operations that the design says "raise" throw a GWException with a name (often the class name of
// the object that refused) and a reason. Its description, as printed by "%@", is the reason. Entry
// points catch std::exception and log "*** Caught exception: %@", so nothing thrown inside the
// library reaches a host program through an entry point.
#pragma once

#include <gatewise/export.h>

#include <exception>
#include <string>

namespace gw {

class GW_EXPORT GWException : public std::exception {
 public:
  GWException(std::string name, std::string reason)
      : name_(std::move(name)), reason_(std::move(reason)) {}

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
};

}  // namespace gw
