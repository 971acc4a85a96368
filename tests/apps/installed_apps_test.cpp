// Installed programs from desktop entries and bundle folders: localized names, precedence,
// program look-up, and entries that must be skipped without harm.
#include <gatewise/apps.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "apps/apps_fixtures.h"
#include "platform/apps/desktop_entry.h"
#include "support/log_capture.h"
#include "support/process.h"

namespace {

struct Listed {
  std::string bundleID, name;
  bool operator==(const Listed&) const = default;
};

class InstalledAppsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    appstest::writeProgram(root_, "/usr/bin/edit", appstest::elfImage(3, true));
    appstest::writeProgram(root_, "/opt/paint/bin/paint", appstest::elfImage(2));
  }

  std::string entry(const std::string& name, const std::string& exec,
                    const std::string& extra = "") {
    return "[Desktop Entry]\nType=Application\nName=" + name + "\n" + extra + "Exec=" + exec + "\n";
  }

  // path -> (bundle id, name), and the order of paths.
  std::map<std::string, Listed> installed(std::vector<std::string>* order = nullptr) {
    std::map<std::string, Listed> result;
    gw::plist::ArrayRef applications = GWCopyInstalledApplications();
    for (const auto& value : *applications) {
      auto d = value.dictionary();
      EXPECT_EQ(d->size(), 3u);
      result[d->get("path").string()] = {d->get("bundleID").string(),
                                         d->get("displayName").string()};
      if (order) order->push_back(d->get("path").string());
    }
    return result;
  }

  gwtest::TempRoot root_;
  appstest::ScopedEnv dataHome_{"XDG_DATA_HOME", root_.at("/home/mia/.local/share")};
  appstest::ScopedEnv dataDirs_{"XDG_DATA_DIRS", std::nullopt};
  appstest::ScopedEnv path_{"PATH", "/usr/local/bin:/usr/bin:/bin"};
  appstest::ScopedEnv language_{"LANGUAGE", "de_AT"};
};

TEST_F(InstalledAppsTest, DesktopEntriesGiveLocalizedNamesAndTheirProgram) {
  root_.writeFile("/usr/share/applications/org.example.Editor.desktop",
                  entry("Editor", "env LANG=C edit %F",
                        "Name[de]=Bearbeiter\nName[fr]=Éditeur\nComment=ignored\n") +
                      "\n[Desktop Action new]\nName=New\nbroken line here\n");
  root_.writeFile("/usr/local/share/applications/kde/paint.desktop",
                  entry("Paint", "\"/opt/paint/bin/paint\" --new", "Name[de_AT]=Malen\n"));
  root_.writeFile("/usr/share/applications/plain.desktop", entry("Plain", "/usr/bin/edit"));
  std::vector<std::string> order;
  auto apps = installed(&order);
  std::string edit = root_.at("/usr/bin/edit"), paint = root_.at("/opt/paint/bin/paint");
  EXPECT_EQ(apps[edit], (Listed{"org.example.Editor", "Bearbeiter"}));
  EXPECT_EQ(apps[paint], (Listed{"kde-paint", "Malen"}));
  EXPECT_EQ(apps.size(), 2u) << "the same program is listed once";
  EXPECT_EQ(order, (std::vector<std::string>{paint, edit})) << "/usr/local/share comes first";

  appstest::ScopedEnv english{"LANGUAGE", "en"};
  EXPECT_EQ(installed()[edit].name, "Editor");
}

TEST_F(InstalledAppsTest, UserEntriesComeFirstAndHideSystemOnes) {
  root_.writeFile("/usr/share/applications/org.example.Editor.desktop", entry("System", "edit"));
  root_.writeFile("/usr/share/applications/gone.desktop", entry("Gone", "/opt/paint/bin/paint"));
  root_.writeFile("/home/mia/.local/share/applications/org.example.Editor.desktop",
                  entry("Mine", "edit"));
  root_.writeFile("/home/mia/.local/share/applications/gone.desktop",
                  entry("Gone", "/opt/paint/bin/paint", "Hidden=true\n"));
  auto apps = installed();
  EXPECT_EQ(apps[root_.at("/usr/bin/edit")].name, "Mine");
  EXPECT_EQ(apps.size(), 1u) << "a hidden user entry deletes the system one";
}

TEST_F(InstalledAppsTest, BrokenEntriesAreSkippedWithALogLine) {
  std::string folder = "/usr/share/applications/";
  root_.writeFile(folder + "a-broken-key.desktop", entry("A", "edit", "Na me=x\n"));
  root_.writeFile(folder + "b-no-exec.desktop", "[Desktop Entry]\nType=Application\nName=B\n");
  root_.writeFile(folder + "c-missing.desktop", entry("C", "/usr/bin/nothing"));
  root_.writeFile(folder + "d-relative.desktop", entry("D", "bin/edit"));
  root_.writeFile(folder + "e-quote.desktop", entry("E", "\"edit"));
  root_.writeFile(folder + "f-link.desktop", "[Desktop Entry]\nType=Link\nName=F\nURL=x\n");
  root_.writeFile(folder + "g-nogroup.desktop", "Type=Application\nName=G\nExec=edit\n");
  root_.writeFile(folder + "h-binary.desktop", entry("H\xff", "edit"));
  ASSERT_EQ(::symlink("loop2", root_.at("/usr/bin/loop1").c_str()), 0);
  ASSERT_EQ(::symlink("loop1", root_.at("/usr/bin/loop2").c_str()), 0);
  root_.writeFile(folder + "i-loop.desktop", entry("I", "loop1"));
  ASSERT_EQ(::symlink("../../../../../../../../etc/passwd", root_.at("/usr/bin/out").c_str()), 0);
  root_.writeFile(folder + "j-out.desktop", entry("J", "out"));
  ASSERT_EQ(::mkfifo(root_.at(folder + "k-fifo.desktop").c_str(), 0644), 0);
  root_.writeFile(folder + "z-good.desktop", entry("Good", "edit"));

  gwtest::LogCapture log(1);
  auto apps = installed();
  ASSERT_EQ(apps.size(), 1u);
  EXPECT_EQ(apps.begin()->second.name, "Good");
  for (const char* reason :
       {"a-broken-key.desktop: broken key on line 4", "b-no-exec.desktop: no Exec",
        "c-missing.desktop: no program at", "d-relative.desktop: relative program path",
        "e-quote.desktop: Exec names no program", "g-nogroup.desktop: no [",
        "h-binary.desktop: value on line 3 is not UTF-8",
        "i-loop.desktop: too many levels of symbolic links",
        "j-out.desktop: a symbolic link leads out", "k-fifo.desktop"})
    EXPECT_TRUE(log.contains(reason)) << reason;
  EXPECT_FALSE(log.contains("f-link.desktop")) << "a link entry is simply not a program";
}

TEST_F(InstalledAppsTest, UnreadableFoldersAreSkippedAndTheRestListed) {
  root_.writeFile("/usr/share/applications/locked/secret.desktop", entry("Secret", "edit"));
  root_.writeFile("/usr/share/applications/open.desktop", entry("Open", "edit"));
  root_.makeFolder("/Applications/Locked/Hidden.app");
  ASSERT_EQ(::chmod(root_.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(root_.at("/usr/share/applications/locked").c_str(), 0), 0);
  ASSERT_EQ(::chmod(root_.at("/Applications/Locked").c_str(), 0), 0);
  int status = gwtest::runInChild([&] {
    if (!gwtest::dropToUnprivilegedUser()) return 10;
    gwtest::LogCapture log(1);
    auto apps = installed();
    if (apps.size() != 1 || apps.begin()->second.name != "Open") return 1;
    if (!log.contains("*** Couldn't read " + root_.at("/usr/share/applications/locked"))) return 2;
    if (!log.contains("*** Couldn't read " + root_.at("/Applications/Locked"))) return 3;
    return 0;
  });
  EXPECT_EQ(status, 0);
  ::chmod(root_.at("/usr/share/applications/locked").c_str(), 0755);
  ::chmod(root_.at("/Applications/Locked").c_str(), 0755);
}

TEST_F(InstalledAppsTest, BundlesUnderApplicationsButNotTheTrashOrTheSystem) {
  root_.writeFile("/Applications/Notes.app/Contents/Info.plist",
                  appstest::infoPlist(
                      {{"CFBundleIdentifier", "org.example.notes"}, {"CFBundleName", "Notes"}}));
  root_.writeFile("/Applications/Notes.app/Contents/Resources/de.lproj/InfoPlist.strings",
                  "\"CFBundleName\" = \"Notizen\";");
  root_.makeFolder("/Applications/Utilities/Bare.app/Contents/Helpers/Inner.app");
  root_.makeFolder("/Applications/System/Kept.app");
  root_.makeFolder("/Applications/.Trash/Old.app");
  root_.writeFile("/Applications/NoName.app/Contents/Info.plist",
                  appstest::infoPlist({{"CFBundleIdentifier", "org.example.noname"}}));
  appstest::writeProgram(root_, "/System/bin/core", appstest::elfImage(2));
  root_.writeFile("/usr/share/applications/core.desktop", entry("Core", "/System/bin/core"));

  auto apps = installed();
  EXPECT_EQ(apps[root_.at("/Applications/Notes.app")], (Listed{"org.example.notes", "Notizen"}));
  EXPECT_EQ(apps[root_.at("/Applications/Utilities/Bare.app")],
            (Listed{"com.morvane.unknown.Bare", "Bare"}));
  EXPECT_EQ(apps[root_.at("/Applications/System/Kept.app")].name, "Kept");
  EXPECT_EQ(apps.size(), 3u) << "no trash, no /System, nothing inside a bundle, no nameless one";
}

TEST(DesktopEntryTest, ValuesAreUnescapedAndExecQuotingHonoured) {
  std::string error;
  auto entry = gw::registry::parseDesktopEntry(
      "# comment\n[Desktop Entry]\nName = A\\sb\\\\c\nX-Key=1\nName=second\n", &error);
  ASSERT_TRUE(entry) << error;
  EXPECT_EQ(entry->value("Name"), "A b\\c");
  using gw::registry::programOfExec;
  EXPECT_EQ(programOfExec("\"/opt/My App/run\" %u"), "/opt/My App/run");
  EXPECT_EQ(programOfExec("\"/opt/a\\\"b\" x"), "/opt/a\"b");
  EXPECT_EQ(programOfExec("/usr/bin/env -u X A=1 B=2 tool --x"), "tool");
  EXPECT_FALSE(programOfExec("env A=1"));
  EXPECT_FALSE(programOfExec("   "));
}

}  // namespace
