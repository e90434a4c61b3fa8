/*
 * The SUSE families' AutoYaST profile. The classic profile copies the
 * tools image into the new system from a chroot script and runs the
 * upgrader from an init script on the first boot; the reporting profile,
 * for releases whose tools come with the distribution, only tells the
 * host from its init script.
 */
#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "lib/guestInstall/autoinstallLinux.h"

// One literal per line of the file, kept whole so the text reads as written.
// clang-format off
// Everything up to the scripts; the same in both profiles.
#define AUTOYAST_HEAD \
  "<?xml version=\"1.0\"?>\n" \
  "<!DOCTYPE profile SYSTEM \"/usr/share/autoinstall/dtd/profile.dtd\">\n" \
  "<profile xmlns=\"http://www.suse.com/1.0/yast2ns\" xmlns:config=\"http://www.suse.com/1.0/configns\">\n" \
  "  <partitioning config:type=\"list\">\n" \
  "    <drive>\n" \
  "      <use>all</use>\n" \
  "    </drive>\n" \
  "  </partitioning>\n" \
  "  <software>\n" \
  "    <patterns config:type=\"list\">\n" \
  "%s    </patterns>\n" \
  "    <packages config:type=\"list\">\n" \
  "%s    </packages>\n" \
  "  </software>\n" \
  "  <general>\n" \
  "    <mode>\n" \
  "      <confirm config:type=\"boolean\">false</confirm>\n" \
  "      <final_halt config:type=\"boolean\">%s</final_halt>\n" \
  "    </mode>\n" \
  "  </general>\n" \
  "  <configure>\n" \
  "    <x11>\n" \
  "      <display_manager>%s</display_manager>\n" \
  "    </x11>\n" \
  "    <networking>\n" \
  "      <interfaces config:type=\"list\">\n" \
  "        <interface>\n" \
  "          <bootproto>dhcp</bootproto>\n" \
  "          <device>eth0</device>\n" \
  "          <startmode>onboot</startmode>\n" \
  "        </interface>\n" \
  "      </interfaces>\n" \
  "    </networking>\n" \
  "    <users config:type=\"list\">\n" \
  "      <user>\n" \
  "        <encrypted config:type=\"boolean\">true</encrypted>\n" \
  "        <user_password>%s</user_password>\n" \
  "        <username>root</username>\n" \
  "        <forename/>\n" \
  "        <surname/>\n" \
  "      </user>\n" \
  "      <user>\n" \
  "        <encrypted config:type=\"boolean\">true</encrypted>\n" \
  "        <user_password>%s</user_password>\n" \
  "        <username>%s</username>\n" \
  "        <forename><![CDATA[%s]]></forename>\n" \
  "      </user>\n" \
  "    </users>\n" \
  "    <sysconfig config:type=\"list\">\n" \
  "      <sysconfig_entry>\n" \
  "        <sysconfig_key>DISPLAYMANAGER</sysconfig_key>\n" \
  "        <sysconfig_path>/etc/sysconfig/displaymanager</sysconfig_path>\n" \
  "        <sysconfig_value>%s</sysconfig_value>\n" \
  "      </sysconfig_entry>\n" \
  "    </sysconfig>\n" \
  "    <scripts>\n"

#define AUTOYAST_TAIL \
  "    </scripts>\n" \
  "  </configure>\n" \
  "</profile>\n"

// The chroot script parks the xdm start link so that the first boot stays
// on the console until the init script has run the upgrader.
extern const char AutoYastClassicTemplate[] = AUTOYAST_HEAD
    "      <chroot-scripts config:type=\"list\">\n"
    "        <script>\n"
    "          <chrooted config:type=\"boolean\">true</chrooted>\n"
    "          <filename>tools-install-pre.sh</filename>\n"
    "          <interpreter>shell</interpreter>\n"
    "          <source><![CDATA[#!/bin/sh\n"
    "mkdir -p /tmp/brimle-toolsmnt0\n"
    "mount -t iso9660 /dev/%s /tmp/brimle-toolsmnt0\n"
    "cp -r /tmp/brimle-toolsmnt0 /opt/brimle-tools-installer\n"
    "umount /tmp/brimle-toolsmnt0\n"
    "cd /opt/brimle-tools-installer\n"
    "mv upgra32 brimle-tools-upgrader-32\n"
    "mv upgra64 brimle-tools-upgrader-64\n"
    "mv upgrade.sh run_upgrader.sh\n"
    "chmod +x brimle-tools-upgrader-32 brimle-tools-upgrader-64 run_upgrader.sh\n"
    "mv /etc/rc.d/rc5.d/*xdm /opt/brimle-tools-installer/\n"
    "chkconfig --add syslog autoyast || true\n"
    "]]></source>\n"
    "        </script>\n"
    "      </chroot-scripts>\n"
    "      <init-scripts config:type=\"list\">\n"
    "        <script>\n"
    "          <filename>tools-install.sh</filename>\n"
    "          <source><![CDATA[#!/bin/sh\n"
    "chvt 1\n"
    "echo \"Installing Brimle Tools, please wait...\"\n"
    "eject /dev/sr0\n"
    "eject /dev/sr1\n"
    "cd /opt/brimle-tools-installer && ./run_upgrader.sh\n"
    "mv /opt/brimle-tools-installer/*xdm /etc/rc.d/rc5.d/\n"
    "cd /\n"
    "rm -rf /opt/brimle-tools-installer\n"
    "/etc/init.d/xdm start\n"
    "]]></source>\n"
    "        </script>\n"
    "      </init-scripts>\n" AUTOYAST_TAIL;

extern const char AutoYastReportingTemplate[] = AUTOYAST_HEAD
    "      <init-scripts config:type=\"list\">\n"
    "        <script>\n"
    "          <filename>tools-install.sh</filename>\n"
    "          <source><![CDATA[#!/bin/sh\n"
    "eject /dev/sr0\n"
    "eject /dev/sr1\n"
    "brimle-rpctool \"guest.upgrader_send_cmd_line_args --default\"\n"
    "brimle-rpctool \"upgrader.setGuestFileRoot /tmp\"\n"
    "brimle-rpctool \"toolinstall.installerActive 1\"\n"
    "brimle-rpctool \"toolinstall.installerActive 100\"\n"
    "]]></source>\n"
    "        </script>\n"
    "      </init-scripts>\n" AUTOYAST_TAIL;
// clang-format on

namespace {

enum class KeyTest { kAny, kSles, kNotSles, kSles11, kSles12 };

constexpr GuessVersion kAnyVersion = ~GuessVersion{0};

// What a SUSE release installs and which profile drives it; the first row
// whose version and key tests pass applies. Names are separated by blanks.
struct SuseRow {
  GuessVersion version;
  KeyTest key;
  const char *patterns;
  const char *packages;
  bool reporting;
  const char *displayManager;
};

constexpr SuseRow kSuseRows[] = {
    {GUESS_VERSION_SLED_ALL, KeyTest::kSles12,
     "32bit Minimal apparmor desktop-base desktop-gnome documentation gnome-basic "
     "sled-Minimal-32bit sled-apparmor-32bit sled-desktop-base-32bit sled-documentation-32bit "
     "sled-x11 x11 Basis-Devel",
     "", true, "gdm"},
    {GUESS_VERSION_SLED_ALL, KeyTest::kSles, "default desktop-gnome Basis-Devel", "", false, "gdm"},
    {GUESS_VERSION_SLED_ALL, KeyTest::kAny, "default desktop-gnome Basis-Devel", "", false, "kdm"},
    {GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER, KeyTest::kNotSles, "kde enhanced_base devel_C_C++",
     "kernel-desktop-devel", false, "kdm"},
    {GUESS_VERSION_OPENSUSE_12, KeyTest::kNotSles, "kde4 enhanced_base devel_C_C++",
     "kernel-desktop-devel", true, "kdm"},
    {kAnyVersion, KeyTest::kNotSles, "kde4 enhanced_base devel_C_C++", "kernel-desktop-devel",
     false, "kdm"},
    {kAnyVersion, KeyTest::kSles12,
     "32bit base Minimal apparmor WBEM documentation gnome-basic x11 Basis-Devel", "", true, "gdm"},
    {kAnyVersion, KeyTest::kSles11, "base gnome Basis-Devel", "", false, "gdm"},
    {kAnyVersion, KeyTest::kAny, "default gnome Basis-Devel", "", false, "gdm"},
};

bool KeyPasses(KeyTest test, std::string_view key) {
  switch (test) {
    case KeyTest::kSles:
      return key.starts_with("sles");
    case KeyTest::kNotSles:
      return !key.starts_with("sles");
    case KeyTest::kSles11:
      return key.starts_with("sles11");
    case KeyTest::kSles12:
      return key.starts_with("sles12");
    case KeyTest::kAny:
      break;
  }
  return true;
}

const SuseRow &Choose(const autoinstall::AnswerInputs &in) {
  for (const SuseRow &row : kSuseRows) {
    if ((row.version == kAnyVersion || row.version == in.version) && KeyPasses(row.key, in.osKey)) {
      return row;
    }
  }
  return kSuseRows[std::size(kSuseRows) - 1];  // not reached: the last row takes every key
}

// One element line per blank-separated name, as the lists in the head
// expect them.
std::string ListLines(std::string_view names, std::string_view element) {
  std::string out;
  while (!names.empty()) {
    const size_t end = std::min(names.find(' '), names.size());
    out.append("      <").append(element).append(">");
    out.append(names.substr(0, end));
    out.append("</").append(element).append(">\n");
    names.remove_prefix(std::min(end + 1, names.size()));
  }
  return out;
}

}  // namespace

std::optional<std::string> autoinstall::FormatAutoYast(const AnswerInputs &in) {
  const SuseRow &row = Choose(in);
  const std::string patterns = ListLines(row.patterns, "pattern");
  const std::string packages = ListLines(row.packages, "package");
  const char *finalHalt = in.powerOff ? "true" : "false";
  const std::string forename = CdataText(in.fullName);
  if (row.reporting) {
    return FillTemplate(AutoYastReportingTemplate,
                        {patterns, packages, finalHalt, row.displayManager, in.rootHash,
                         in.userHash, in.userName, forename, row.displayManager});
  }
  const char *device = in.family == LINUX_FAMILY_SLES10 ? "hda" : "sr0";
  return FillTemplate(AutoYastClassicTemplate,
                      {patterns, packages, finalHalt, row.displayManager, in.rootHash, in.userHash,
                       in.userName, forename, row.displayManager, device});
}
