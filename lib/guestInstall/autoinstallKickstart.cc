/*
 * The Red Hat family's kickstart file: three templates that share the
 * kickstart commands and differ in how the first boot gets the guest
 * tools, and the choice of template, switches and package groups by
 * distribution and release.
 */
#include <optional>
#include <string>
#include <string_view>

#include "lib/guestInstall/autoinstallLinux.h"

// The kickstart commands every template starts with, up to "%post". The
// "#" prefixes switch single lines or trailing options off, so one head
// serves installers from the oldest supported release to the newest.
#define KICKSTART_HEAD                              \
  "lang en_US\n"                                    \
  "%slangsupport --default en_US\n"                 \
  "network --bootproto dhcp\n"                      \
  "cdrom\n"                                         \
  "keyboard us\n"                                   \
  "zerombr %syes\n"                                 \
  "clearpart --all --initlabel\n"                   \
  "part /boot --size 300\n"                         \
  "part swap --recommended\n"                       \
  "part / --size 3000 --grow\n"                     \
  "%spart biosboot --fstype=biosboot --size=1\n"    \
  "install\n"                                       \
  "%smouse generic3ps/2\n"                          \
  "firstboot --disable\n"                           \
  "firewall --enabled\n"                            \
  "timezone --utc America/Los_Angeles\n"            \
  "xconfig --startxonboot %s--resolution=800x600\n" \
  "rootpw --iscrypted %s\n"                         \
  "%s\n"                                            \
  "auth --useshadow --enablemd5\n"                  \
  "bootloader --location=mbr\n"                     \
  "%%packages%s\n"                                  \
  "%spython\n"                                      \
  "%s\n"                                            \
  "%s%%end\n"                                       \
  "%%post\n"

// The installing user's account; its full name follows in each template.
// User names are plain a-z, 0-9 and "-", safe unquoted; hashes hold no "'".
#define KICKSTART_ADD_USER \
  "/usr/sbin/adduser %s\n" \
  "/usr/sbin/usermod -p '%s' %s\n"

const char KickstartToolsImageTemplate[] = KICKSTART_HEAD
    "# The first boot installs the tools in text mode: no boot splash until\n"
    "# it is done.\n"
    "for f in /boot/grub/menu.lst /boot/grub/grub.conf /boot/grub2/grub.conf; do\n"
    "  if [ -f \"$f\" ] && [ ! -L \"$f\" ]; then\n"
    "    cp -p \"$f\" \"$f.bak\"\n"
    "    sed -i -e '/^[[:space:]]*\\(kernel\\|linux\\)/s/ rhgb//' \"$f\"\n"
    "  fi\n"
    "done\n"
    "if [ -f /etc/rc.d/rc.local ]; then\n"
    "  cp -p /etc/rc.d/rc.local /etc/rc.d/rc.local.backup\n"
    "else\n"
    "  echo '#!/bin/sh' > /etc/rc.d/rc.local\n"
    "fi\n"
    "cat >> /etc/rc.d/rc.local <<'BRIMLE_FIRST_BOOT'\n"
    "# Installs the guest tools from the tools image once, then puts back\n"
    "# everything the install changed for it.\n"
    "echo \"Installing Brimle Tools, please wait...\"\n"
    "selinuxMode=$(getenforce 2>/dev/null)\n"
    "setenforce 0 2>/dev/null\n"
    "mkdir -p /tmp/brimle-toolsmnt0\n"
    "for dev in hda sr0 scd0; do\n"
    "  mount -t iso9660 /dev/$dev /tmp/brimle-toolsmnt0 2>/dev/null && break\n"
    "done\n"
    "cp -r /tmp/brimle-toolsmnt0 /opt/brimle-tools-installer\n"
    "cd /opt/brimle-tools-installer\n"
    "mv upgra32 brimle-tools-upgrader-32\n"
    "mv upgra64 brimle-tools-upgrader-64\n"
    "mv upgrade.sh run_upgrader.sh\n"
    "chmod +x brimle-tools-upgrader-32 brimle-tools-upgrader-64 run_upgrader.sh\n"
    "cd /\n"
    "umount /tmp/brimle-toolsmnt0\n"
    "eject sr0\n"
    "eject sr1\n"
    "cd /opt/brimle-tools-installer\n"
    "./run_upgrader.sh\n"
    "cd /\n"
    "if [ -f /etc/rc.d/rc.local.backup ]; then\n"
    "  mv -f /etc/rc.d/rc.local.backup /etc/rc.d/rc.local\n"
    "else\n"
    "  rm -f /etc/rc.d/rc.local\n"
    "fi\n"
    "rm -rf /opt/brimle-tools-installer\n"
    "if [ -f /etc/inittab ]; then\n"
    "  sed -i -e 's/[0-9]:initdefault/5:initdefault/' /etc/inittab\n"
    "fi\n"
    "for f in /boot/grub/menu.lst /boot/grub/grub.conf /boot/grub2/grub.conf; do\n"
    "  if [ -f \"$f.bak\" ]; then\n"
    "    mv -f \"$f.bak\" \"$f\"\n"
    "  fi\n"
    "done\n"
    "if [ -n \"$selinuxMode\" ] && [ \"$selinuxMode\" != Disabled ]; then\n"
    "  setenforce \"$selinuxMode\"\n"
    "fi\n"
    "if [ -d /run/systemd/system ]; then\n"
    "  systemctl restart prefdm.service\n"
    "else\n"
    "  telinit 5\n"
    "fi\n"
    "BRIMLE_FIRST_BOOT\n"
    "chmod +x /etc/rc.d/rc.local\n"
    "# systemd runs rc.local only through its compatibility unit.\n"
    "if command -v systemctl >/dev/null 2>&1; then\n"
    "  systemctl enable rc-local.service\n"
    "fi\n" KICKSTART_ADD_USER
    "/usr/bin/chfn -f \"%s\" %s\n"
    "/bin/echo done\n"
    "%s%%end\n";

const char KickstartNetworkToolsTemplate[] = KICKSTART_HEAD KICKSTART_ADD_USER
    "#/usr/bin/chfn -f \"%s\" %s\n"
    "# The first boot installs the tools from the distribution's repositories\n"
    "# once the network is up, and tells the host when they are there.\n"
    "cat > /etc/rc.d/rc.local <<'BRIMLE_FIRST_BOOT'\n"
    "#!/bin/sh\n"
    "mkdir -p /var/log/brimle\n"
    "exec >> /var/log/brimle/rc.local.log 2>&1\n"
    "tries=1\n"
    "while [ $tries -lt 30 ]; do\n"
    "  getent hosts mirrors.fedoraproject.org >/dev/null && break\n"
    "  tries=$((tries + 6))\n"
    "  sleep 1\n"
    "done\n"
    "yum -y install open-brm-tools-desktop || /bin/true\n"
    "if rpm -qa | grep -q '^open-brm-tools-desktop'; then\n"
    "  eject sr0\n"
    "  eject sr1\n"
    "  /bin/brimle-rpctool \"guest.upgrader_send_cmd_line_args --default\"\n"
    "  /bin/brimle-rpctool \"upgrader.setGuestFileRoot /tmp\"\n"
    "  /bin/brimle-rpctool \"toolinstall.installerActive 1\"\n"
    "  /bin/brimle-rpctool \"toolinstall.installerActive 100\"\n"
    "fi\n"
    "rm -f /etc/rc.d/rc.local\n"
    "BRIMLE_FIRST_BOOT\n"
    "chmod +x /etc/rc.d/rc.local\n"
    "%s%%end\n";

const char KickstartDistroToolsTemplate[] = KICKSTART_HEAD KICKSTART_ADD_USER
    "/usr/bin/chfn -f \"%s\" %s\n"
    "# The tools come with the distribution's package set; the first boot only\n"
    "# tells the host they are there, then puts the old rc.local back.\n"
    "if [ -f /etc/rc.d/rc.local ]; then\n"
    "  mv -f /etc/rc.d/rc.local /etc/rc.d/rc.local.00\n"
    "fi\n"
    "cat > /etc/rc.d/rc.local <<'BRIMLE_FIRST_BOOT'\n"
    "#!/bin/sh\n"
    "mkdir -p /var/log/brimle\n"
    "exec >> /var/log/brimle/rc.local.log 2>&1\n"
    "echo \"Installing Open BRM Tools\"\n"
    "eject sr0 || /bin/true\n"
    "eject sr1 || /bin/true\n"
    "/bin/brimle-rpctool \"guest.upgrader_send_cmd_line_args --default\"\n"
    "/bin/brimle-rpctool \"upgrader.setGuestFileRoot /tmp\"\n"
    "/bin/brimle-rpctool \"toolinstall.installerActive 1\"\n"
    "/bin/brimle-rpctool \"toolinstall.installerActive 100\"\n"
    "rm -f /etc/rc.d/rc.local\n"
    "rm -f /etc/rc.d/rc5.d/S99rclocal\n"
    "if [ -f /etc/rc.d/rc.local.00 ]; then\n"
    "  mv -f /etc/rc.d/rc.local.00 /etc/rc.d/rc.local\n"
    "fi\n"
    "BRIMLE_FIRST_BOOT\n"
    "chmod +x /etc/rc.d/rc.local\n"
    "ln -sf /etc/rc.d/rc.local /etc/rc.d/rc5.d/S99rclocal\n"
    "%s%%end\n";

namespace {

constexpr char kKsArgument[] = "ks=cdrom:/ks.cfg";
// Fedora 17 to 20 installers find the CD only under its device name.
constexpr char kKsArgumentByDevice[] = "ks=cdrom:/dev/cdrom:/ks.cfg";

constexpr char kRhel6Packages[] =
    "@ Desktop\n@ General Purpose Desktop\n@ Internet Browser\n@ X Window System\n@ Fonts\n"
    "@ Printing client\ngcc\nmake\npatch\nbinutils\nkernel-devel\n";
constexpr char kRhel7ServerPackages[] =
    "gcc\nmake\npatch\nbinutils\nkernel-devel\nftp\n@base\n@core\nopen-brm-tools\n"
    "@guest-desktop-agents\n";
constexpr char kRhel7Packages[] =
    "gcc\nmake\npatch\nbinutils\nkernel-devel\nftp\n@base\n@core\nopen-brm-tools\n"
    "@guest-desktop-agents\n@desktop-debugging\n@dial-up\n@directory-client\n@fonts\n"
    "@gnome-desktop\n@input-methods\n@internet-browser\n@java-platform\n@multimedia\n"
    "@network-file-system-client\n@print-client\n@x11\n";
constexpr char kRhel8Packages[] =
    "gcc\nmake\npatch\nbinutils\nkernel-devel\nftp\n@base\n@core\nopen-brm-tools\n"
    "@guest-desktop-agents\n@desktop-debugging\n@dial-up\n@fonts\n@gnome-desktop\n"
    "@input-methods\n@internet-browser\n@java-platform\n@multimedia\n"
    "@network-file-system-client\n@print-client\nmesa-libxatracker\nxorg-x11-drv-brimle\n";
constexpr char kAsianux3Packages[] =
    "@ base-x\n@ Chinese-support\n@ Japanese-support\n@ Korean-support\n@ web-browsers\n"
    "@ kde-desktop\n";
constexpr char kAsianux4Packages[] =
    "@ Chinese-support\n@ Japanese-support\n@ Korean-support\n@ general-desktop\n"
    "@ internet-browser\n@ basic-desktop\n@ desktop-platform\n@ x11\n";
constexpr char kFedora9Packages[] =
    "@ X Window System\n@ GNOME Desktop Environment\n@ Graphical Internet\n"
    "@ Development Tools\n@ Fonts\n";
#define KICKSTART_FEDORA18_GROUPS                                                    \
  "@base-x\n@core\n@development-tools\n@dial-up\n@firefox\n@fonts\n@gnome-desktop\n" \
  "@hardware-support\n@input-methods\n@libreoffice\n@multimedia\n@printing\n@standard\n"
constexpr char kFedora18Packages64[] = KICKSTART_FEDORA18_GROUPS;
// The list ends the line itself: the template's line break follows.
constexpr char kFedora18Packages32[] = KICKSTART_FEDORA18_GROUPS "kernel-PAE-devel";
constexpr char kFedora21Packages[] =
    "@c-development\n@container-management\n@core\n@domain-client\n@guest-agents\n"
    "@hardware-support\n@headless-management\n@server-product\n@standard\n";
constexpr char kFedora22Packages[] =
    "@container-management\n@core\n@domain-client\n@guest-agents\n@headless-management\n"
    "@server-hardware-support\n@server-product\n@standard\n";
constexpr char kDefaultPackages[] =
    "@ X Window System\n@ GNOME Desktop Environment\n@ Graphical Internet\n"
    "@ Development Tools\n";

struct KickstartChoice {
  bool legacy;  // installers before release 5: --resolvedeps, langsupport, mouse
  bool modern;  // installers that know %end and have dropped the old options
  const char *tmpl;
  const char *packages;
  bool python;
};

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The digit right after a prefix, as a number; only that one character
// counts, and a missing one reads as the terminator would.
int DigitAfter(std::string_view key, size_t at) {
  const unsigned char c = at < key.size() ? static_cast<unsigned char>(key[at]) : 0;
  return c - '0';
}

// Releases that only the version value distinguishes: Fedora, and the
// other keys of the family whose release the key does not tell.
KickstartChoice ChooseByVersion(const autoinstall::AnswerInputs &in, bool legacy) {
  const bool is64 = in.osKey.find("64") != std::string_view::npos;
  const char *fedora18 = is64 ? kFedora18Packages64 : kFedora18Packages32;
  switch (in.version) {
    case GUESS_VERSION_FEDORA_9_TO_12:
      return {legacy, false, KickstartToolsImageTemplate, kFedora9Packages, true};
    case GUESS_VERSION_FEDORA_14_TO_16:
    case GUESS_VERSION_FEDORA_17:
      return {legacy, true, KickstartToolsImageTemplate, kFedora9Packages, true};
    case GUESS_VERSION_FEDORA_18:
      return {legacy, true, KickstartToolsImageTemplate, fedora18, true};
    case GUESS_VERSION_FEDORA_19_TO_20:
      return {legacy, true, KickstartNetworkToolsTemplate, fedora18, true};
    case GUESS_VERSION_FEDORA_21:
      return {legacy, true, KickstartNetworkToolsTemplate, kFedora21Packages, true};
    case GUESS_VERSION_FEDORA_22_TO_28:
      return {legacy, true, KickstartNetworkToolsTemplate, kFedora22Packages, true};
    case GUESS_VERSION_FEDORA_29_OR_HIGHER:
      return {legacy, true, KickstartNetworkToolsTemplate, kFedora22Packages, false};
    default:
      return {legacy, false, KickstartToolsImageTemplate, kDefaultPackages, true};
  }
}

// The major release of a RHEL-like key: a rhel key tells it, CentOS media
// by their version value.
int MajorRelease(std::string_view osKey, bool rhelKey, GuessVersion v) {
  if (rhelKey) {
    return DigitAfter(osKey, 4);
  }
  if (v == GUESS_VERSION_CENTOS_8) {
    return 8;
  }
  return static_cast<int>(v - GUESS_VERSION_CENTOS_3) + 3;  // CentOS 3 to 7 in a row
}

KickstartChoice Choose(const autoinstall::AnswerInputs &in) {
  const GuessVersion v = in.version;
  const bool rhelKey = StartsWith(in.osKey, "rhel");
  const bool asianuxKey = StartsWith(in.osKey, "asianux");
  const bool rhelLike = rhelKey || (v >= GUESS_VERSION_CENTOS_3 && v <= GUESS_VERSION_CENTOS_7) ||
                        v == GUESS_VERSION_CENTOS_8;

  if (rhelLike) {
    const int major = MajorRelease(in.osKey, rhelKey, v);
    if (major == 6) {
      return {false, true, KickstartToolsImageTemplate, kRhel6Packages, true};
    }
    if (major == 7) {
      return {false, true, KickstartDistroToolsTemplate,
              v == GUESS_VERSION_RHEL_SERVER ? kRhel7ServerPackages : kRhel7Packages, true};
    }
    if (major >= 8) {
      return {false, true, KickstartDistroToolsTemplate, kRhel8Packages, false};
    }
    return ChooseByVersion(in, major <= 4);
  }
  if (asianuxKey) {
    if (DigitAfter(in.osKey, 7) <= 3) {
      return {false, false, KickstartToolsImageTemplate, kAsianux3Packages, true};
    }
    return {false, true, KickstartToolsImageTemplate, kAsianux4Packages, true};
  }
  return ChooseByVersion(in, false);
}

}  // namespace

void autoinstall::SetKickstartKernelArgs(GuessVersion v) {
  bool byDevice = v == GUESS_VERSION_FEDORA_17 || v == GUESS_VERSION_FEDORA_18 ||
                  v == GUESS_VERSION_FEDORA_19_TO_20;
  LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = byDevice ? kKsArgumentByDevice : kKsArgument;
}

std::optional<std::string> autoinstall::FormatKickstart(const AnswerInputs &in) {
  const KickstartChoice c = Choose(in);
  const GuessVersion v = in.version;

  const char *legacyPrefix = c.legacy ? "" : "#";
  const char *modernPrefix = c.modern ? "#" : "";
  const char *endPrefix = c.modern ? "" : "#";
  const char *pythonPrefix = c.python ? "" : "#";
  const char *biosbootPrefix =
      v >= GUESS_VERSION_FEDORA_14_TO_16 && v <= GUESS_VERSION_FEDORA_29_OR_HIGHER ? "" : "#";
  const char *resolvedeps = c.legacy ? " --resolvedeps" : "";

  autoinstall::SetKickstartKernelArgs(v);

  const std::string fullName = ShellDoubleQuoted(in.fullName);
  return FillTemplate(
      c.tmpl, {legacyPrefix, modernPrefix, biosbootPrefix, legacyPrefix, modernPrefix, in.rootHash,
               in.powerOff ? "poweroff" : "reboot", resolvedeps, pythonPrefix, c.packages,
               endPrefix, in.userName, in.userHash, in.userName, fullName, in.userName, endPrefix});
}
