// The texts of a limit item: what it manages, whether it has a schedule, and its description.
#include <gatewise/format.h>
#include <gatewise/schedule/limit_item.h>

namespace gw {
namespace {

std::size_t countOf(const plist::ArrayRef& list) { return list ? list->size() : 0; }

// What "%@" prints for the value of key: "(null)" when there is none.
plist::Value described(const plist::Dictionary& d, std::string_view key) {
  const plist::Value* value = d.find(key);
  return value ? *value : plist::Value("(null)");
}

std::string counted(std::size_t n, const char* one, const char* many) {
  return format(n == 1 ? one : many, int(n));
}

}  // namespace

std::string GWLimitItem::listDescription() const {
  std::size_t apps = countOf(appList());
  std::size_t sites = countOf(siteList());
  std::size_t widgets = countOf(widgetList());
  if (apps + sites + widgets == 0 && !isComputer()) return "No managed items";
  std::string text;
  if (apps > 0) text += counted(apps, "%d application", "%d applications");
  if (sites > 0) {
    if (apps > 0) text += ", ";
    text += counted(sites, "%d web site", "%d web sites");
  }
  if (widgets > 0) {
    if (apps + sites > 0) text += ", ";
    text += counted(widgets, "%d Vistrel widget", "%d Vistrel widgets");
  }
  return text;
}

std::string GWLimitItem::scheduleDescription() const {
  if (!hasActiveSchedule()) return "No schedule";
  plist::ArrayRef list = allowances();
  if (!list || list->empty()) return "";  // curfews alone have no wording of their own
  GWCurfewsRef held = curfews();
  return held && held->hasCurfews() ? "Allowances and curfews set" : "Allowances set";
}

std::string GWLimitItem::briefDescription() const {
  std::string text;
  if (!isComputer()) text = listDescription() + "\n";
  return text + scheduleDescription();
}

std::string GWLimitItem::description() const {
  const plist::Dictionary& d = *_dictionary;
  plist::Value notApplicable("n/a");
  bool group = isGroup();
  return format(
      "\n\t\tItem type: %@\n\t\tEnabled: %d\n\t\tName: %@\n\t\tBundle ID: %@\n\t\tGroup ID: "
      "%@\n\t\tPath: %@\n\t\tApps: %@\n\t\tSites: %@\n\t\tWidgets: %@\n\t\tCurfews: "
      "\n------\n%@\n------\n\t\tAllowances active: %d\n\t\tAllowances: \n------\n%@\n------\n",
      described(d, "itemType"), int(enabled()), described(d, "name"),
      group ? notApplicable : described(d, "bundleID"), described(d, "groupID"),
      group ? notApplicable : described(d, "path"), group ? described(d, "appList") : notApplicable,
      group ? described(d, "siteList") : notApplicable,
      group ? described(d, "widgetList") : notApplicable, described(d, "curfews"),
      int(allowancesActive()), described(d, "allowances"));
}

}  // namespace gw
