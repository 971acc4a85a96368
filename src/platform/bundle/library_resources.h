// The library's own resources (localizations, string tables), installed with it.
//
// The folder is $GATEWISE_RESOURCE_DIR when set (tests, uninstalled builds), else the "gatewise"
// folder of the data directory beside the installed library (found from the library's own file
// location), else the data directory fixed at build time. Inside it,
// "<Language>.lproj/<name>.strings".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace gw::bundle {

std::string libraryResourceFolder();

// Path of "<folder>/<language>.lproj/<name>.<type>" for the first language of the list that has
// it, falling back to "English" and "en"; empty when none has it.
std::string libraryResourcePath(std::string_view name, std::string_view type,
                                const std::vector<std::string>& preferredLanguages = {});

}  // namespace gw::bundle
