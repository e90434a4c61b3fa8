/*
 * Ubuntu's preseed file: the installer's answers and a script, run once
 * as ubiquity's success command and once as debian-installer's late
 * command, that prepares the first boot to install the guest tools,
 * either from the tools image (classic) or from the distribution's
 * open-brm-tools packages (open tools).
 *
 * debconf reads one answer per line and joins a line that ends in a
 * backslash with the next, so each script is one shell line written as
 * continuation lines. Everything it puts into the installed system's
 * rc.local is single-quoted at install time.
 */
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "lib/guestInstall/autoinstallLinux.h"

// One literal per line of the file, kept whole so the text reads as written.
// clang-format off
// Answers up to the scripts; the same for both templates.
#define PRESEED_HEAD \
  "# Text mode installer settings\n" \
  "d-i finish-install/reboot_in_progress note\n" \
  "\n" \
  "# Language, country, time zone and keyboard\n" \
  "d-i languagechooser/language-name select English\n" \
  "d-i localechooser/shortlist select US\n" \
  "d-i time/zone string America/Los_Angeles\n" \
  "d-i debian-installer/locale string en_US.UTF-8\n" \
  "d-i localechooser/supported-locales multiselect en_US.UTF-8\n" \
  "d-i console-setup/modelcode string SKIP\n" \
  "d-i console-setup/layoutcode string us\n" \
  "d-i console-setup/layout select U.S. English\n" \
  "d-i console-setup/variant select U.S. English\n" \
  "d-i console-setup/codeset select . Combined - Latin; Slavic Cyrillic; Hebrew; basic Arabic\n" \
  "\n" \
  "# Partitioning: the whole first disk in one partition, no questions\n" \
  "d-i partman-auto/init_automatically_partition select Guided - use entire disk\n" \
  "ubiquity   partman-auto/disk string   /dev/sda\n" \
  "d-i partman-auto/method string regular\n" \
  "d-i partman-auto/choose_recipe select All files in one partition (recommended for new users)\n" \
  "d-i partman-partitioning/confirm_write_new_label boolean true\n" \
  "d-i partman/confirm boolean true\n" \
  "d-i partman/confirm_nooverwrite boolean true\n" \
  "d-i partman/choose_partition select Finish partitioning and write changes to disk\n" \
  "\n" \
  "# The user account\n" \
  "ubiquity   passwd/user-fullname string   %s\n" \
  "ubiquity   passwd/username   string   %s\n" \
  "ubiquity   passwd/user-password-crypted password %s\n" \
  "ubiquity   user-setup/encrypt-home boolean false\n" \
  "\n" \
  "# How the install ends, what it installs, and no pauses for notes\n" \
  "ubiquity   ubiquity/%s boolean true\n" \
  "ubiquity   ubiquity/use_nonfree boolean true\n" \
  "ubiquity   ubiquity/download_updates boolean false\n" \
  "ubiquity   ubiquity/minimal_install boolean true\n" \
  "ubiquity   ubiquity/nonfree_package boolean true\n" \
  "ubiquity   migration-assistant/partitions multiselect\n" \
  "ubiquity   ubiquity/summary note\n" \
  "ubiquity   apt-setup/security-updates-failed note\n" \
  "\n" \
  "# The first boot installs the guest tools\n"

// Copies the tools image into the new system, gives the upgrader files
// back their long names and keeps the old rc.local (less its final
// "exit 0") as the start of the new one.
#define PRESEED_COPY_TOOLS(releaseImage) \
  "    mkdir -p /tmp/brimle-toolsmnt0; \\\n" \
  "    for i in sr0 scd0; do mount -t iso9660 /dev/$i /tmp/brimle-toolsmnt0 && break; done; \\\n" \
  "    cp -r /tmp/brimle-toolsmnt0 /target/opt/brimle-tools-installer; \\\n" \
  "    " releaseImage " /tmp/brimle-toolsmnt0; \\\n" \
  "    cd /target/opt/brimle-tools-installer; \\\n" \
  "    mv upgra32 brimle-tools-upgrader-32; \\\n" \
  "    mv upgra64 brimle-tools-upgrader-64; \\\n" \
  "    mv upgrade.sh run_upgrader.sh; \\\n" \
  "    chmod +x brimle-tools-upgrader-32 brimle-tools-upgrader-64 run_upgrader.sh; \\\n" \
  "    mv /target/etc/rc.local /target/etc/rc.local.backup; \\\n" \
  "    sed '$d' /target/etc/rc.local.backup > /target/etc/rc.local; \\\n"

// Classic: the display manager waits until the upgrader has run from
// rc.local; meanwhile the console banner tells the user what is going on.
#define PRESEED_CLASSIC_SCRIPT \
  PRESEED_COPY_TOOLS("eject")                                                                      \
  "    mv /target/etc/rc2.d/S*gdm /target/etc/rc2.d/S*kdm /target/etc/rc2.d/S*kdm-kde4 /target/etc/init/*dm.conf /target/opt/brimle-tools-installer/; \\\n" \
  "    mv /target/etc/issue /target/etc/issue.backup; \\\n" \
  "    echo '************************************************' > /target/etc/issue; \\\n" \
  "    echo '************************************************' >> /target/etc/issue; \\\n" \
  "    echo '            Brimle Quickstep' >> /target/etc/issue; \\\n" \
  "    echo '' >> /target/etc/issue; \\\n" \
  "    echo '  PLEASE WAIT! Brimle Tools is currently being' >> /target/etc/issue; \\\n" \
  "    echo '  installed on your system. Depending on the' >> /target/etc/issue; \\\n" \
  "    echo '  version of Ubuntu you are installing, you may' >> /target/etc/issue; \\\n" \
  "    echo '  log in below and use the system during the' >> /target/etc/issue; \\\n" \
  "    echo '  installation. Otherwise, please wait for the' >> /target/etc/issue; \\\n" \
  "    echo '  graphical environment to launch. Thank you.' >> /target/etc/issue; \\\n" \
  "    echo '' >> /target/etc/issue; \\\n" \
  "    echo '************************************************' >> /target/etc/issue; \\\n" \
  "    echo '************************************************' >> /target/etc/issue; \\\n" \
  "    echo 'set +e' >> /target/etc/rc.local; \\\n" \
  "    echo 'mkdir -p /var/log/brimle' >> /target/etc/rc.local; \\\n" \
  "    echo 'exec >> /var/log/brimle/rc.local.log 2>&1' >> /target/etc/rc.local; \\\n" \
  "    echo 'if command -v plymouth > /dev/null; then plymouth message --text=\"Installing Brimle Tools.  Please wait...\"; else chvt 2; fi' >> /target/etc/rc.local; \\\n" \
  "    echo 'cd /opt/brimle-tools-installer && ./run_upgrader.sh' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /etc/rc.local.backup /etc/rc.local' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /etc/issue.backup /etc/issue' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /opt/brimle-tools-installer/S*dm /opt/brimle-tools-installer/S*kdm-kde4 /etc/rc2.d/' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /opt/brimle-tools-installer/*dm.conf /etc/init/' >> /target/etc/rc.local; \\\n" \
  "    echo 'cd / && rm -rf /opt/brimle-tools-installer' >> /target/etc/rc.local; \\\n" \
  "    echo 'chvt 1' >> /target/etc/rc.local; \\\n" \
  "    chmod +x /target/etc/rc.local; \\\n" \
  "    if [ %s = true ]; then ln -s /etc/init.d/rc.local /target/etc/rcS.d/S05rc.local || true; echo 'rm -f /etc/rcS.d/S05rc.local' >> /target/etc/rc.local; fi; \\\n" \
  "    echo '(/sbin/initctl start lightdm || /sbin/initctl start gdm || /etc/init.d/gdm restart || /etc/init.d/kdm restart || /etc/init.d/kdm-kde4 restart) 2>/dev/null' >> /target/etc/rc.local\n"

// Open tools: the first boot installs the distribution's packages when
// the archive can be reached and reports to the host only when they are
// in. The new rc.local is a bash script whatever the old one was (newer
// releases have none).
#define PRESEED_OPEN_TOOLS_SCRIPT \
  PRESEED_COPY_TOOLS("umount")                                                                     \
  "    echo '#!/bin/bash' | cat - /target/etc/rc.local > /target/etc/rc.local.new; \\\n" \
  "    mv /target/etc/rc.local.new /target/etc/rc.local; \\\n" \
  "    mv /target/etc/init/*dm.conf /target/opt/brimle-tools-installer/; \\\n" \
  "    eject /dev/sr0; \\\n" \
  "    eject /dev/sr1; \\\n" \
  "    echo 'echo \"Installing open-brm-tools\"' >> /target/etc/rc.local; \\\n" \
  "    echo 'mkdir -p /var/log/brimle' >> /target/etc/rc.local; \\\n" \
  "    echo 'exec >> /var/log/brimle/rc.local.log 2>&1' >> /target/etc/rc.local; \\\n" \
  "    echo 'eject /dev/sr0 || true' >> /target/etc/rc.local; \\\n" \
  "    echo 'eject /dev/sr1 || true' >> /target/etc/rc.local; \\\n" \
  "    echo 'cp /etc/apt/sources.list /etc/apt/sources.bak' >> /target/etc/rc.local; \\\n" \
  "    echo 'sed -i \"s/^deb cdrom:/# deb cdrom:/\" /etc/apt/sources.list' >> /target/etc/rc.local; \\\n" \
  "    echo 'online=no; for try in 1 2 3; do if timeout 4 getent hosts archive.ubuntu.com > /dev/null; then online=yes; break; fi; [ $try = 3 ] || sleep 5; done' >> /target/etc/rc.local; \\\n" \
  "    echo 'if [ $online = yes ]; then apt-get update; apt-get install -q -y --force-yes --no-install-recommends open-brm-tools; apt-get install -q -y --force-yes --no-install-recommends open-brm-tools-desktop; fi' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /etc/apt/sources.bak /etc/apt/sources.list' >> /target/etc/rc.local; \\\n" \
  "    echo 'if dpkg -l open-brm-tools 2>/dev/null | grep -q \"^ii\"; then echo \"open-brm-tools install Succeeded.\"; brimle-rpctool \"guest.upgrader_send_cmd_line_args --default\"; brimle-rpctool \"upgrader.setGuestFileRoot /tmp\"; brimle-rpctool \"toolinstall.installerActive 1\"; brimle-rpctool \"toolinstall.installerActive 100\"; else echo \"open-brm-tools install FAILED.\"; fi' >> /target/etc/rc.local; \\\n" \
  "    echo 'mv /opt/brimle-tools-installer/*dm.conf /etc/init/' >> /target/etc/rc.local; \\\n" \
  "    echo 'cd / && rm -rf /opt/brimle-tools-installer' >> /target/etc/rc.local; \\\n" \
  "    echo '/sbin/initctl start lightdm 2>/dev/null || service lightdm start' >> /target/etc/rc.local; \\\n" \
  "    chmod +x /target/etc/rc.local; \\\n" \
  "    if [ %s = true ]; then ln -s /etc/init.d/rc.local /target/etc/rcS.d/S05rc.local || true; echo 'rm -f /etc/rcS.d/S05rc.local' >> /target/etc/rc.local; echo 'mv /etc/rc.local.backup /etc/rc.local' >> /target/etc/rc.local; fi\n"

// The script runs at the end of ubiquity and, for the text installer, as
// the late command; whichever installer runs uses its own key.
#define PRESEED_TEMPLATE(script) \
  PRESEED_HEAD                                                  \
  "ubiquity   ubiquity/success_command   string \\\n" script    \
  "d-i    debian-installer/splash boolean false\n"              \
  "d-i  preseed/late_command string \\\n" script

extern const char PreseedClassicTemplate[] = PRESEED_TEMPLATE(PRESEED_CLASSIC_SCRIPT);
extern const char PreseedOpenToolsTemplate[] = PRESEED_TEMPLATE(PRESEED_OPEN_TOOLS_SCRIPT);
// clang-format on

namespace {

constexpr std::string_view kSdaDiskLine = "ubiquity   partman-auto/disk string   /dev/sda\n";
constexpr std::string_view kNvmeDiskLine = "ubiquity   partman-auto/disk string   /dev/nvme0n1\n";

// Releases whose installed system takes the tools from the distribution.
bool UsesOpenTools(GuessVersion v) {
  switch (v) {
    case GUESS_VERSION_UBUNTU_SERVER_1404:
    case GUESS_VERSION_UBUNTU_SERVER_1410:
    case GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER:
    case GUESS_VERSION_UBUNTU_1404:
    case GUESS_VERSION_UBUNTU_1410:
    case GUESS_VERSION_UBUNTU_1504_TO_2004:
    case GUESS_VERSION_UBUNTU_2010_OR_HIGHER:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::optional<std::string> autoinstall::FormatPreseed(const AnswerInputs &in) {
  const bool openTools = UsesOpenTools(in.version);
  std::string tmpl = openTools ? PreseedOpenToolsTemplate : PreseedClassicTemplate;
  if (in.nvme) {
    const size_t at = tmpl.find(kSdaDiskLine);
    if (at == std::string::npos) {
      return std::nullopt;
    }
    tmpl.replace(at, kSdaDiskLine.size(), kNvmeDiskLine);
  }

  const std::unique_ptr<char, decltype(&free)> escaped(
      AutoInstallEscapeQuotes(std::string(in.fullName).c_str()), &free);
  const std::string_view fullName = escaped.get();
  // debconf would join the next answer onto a line that ends in a
  // backslash, and there is no escape for it.
  if (!fullName.empty() && fullName.back() == '\\') {
    return std::nullopt;
  }

  const char *flag = openTools ? "true" : "false";
  return FillTemplate(
      tmpl, {fullName, in.userName, in.userHash, in.powerOff ? "poweroff" : "reboot", flag, flag});
}
