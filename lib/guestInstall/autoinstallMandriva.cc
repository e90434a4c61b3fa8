/*
 * Mandriva's auto-install configuration: a Perl hash the installer
 * evaluates. It takes the passwords as text, so they, like the full name,
 * go into double-quoted Perl strings escaped so that Perl reads back
 * exactly the typed text; the user name is only ever [a-z0-9-].
 *
 * The post-install script sits in a single-quoted Perl string, so it
 * holds no single quote and no backslash before a quote or a backslash.
 */
#include <optional>
#include <string>
#include <string_view>

#include "lib/guestInstall/autoinstallLinux.h"

extern const char MandrivaTemplate[] = R"(#!/usr/bin/perl -cw
#
# Mandriva auto-install configuration, a Perl data file. To check its
# syntax, run: perl -cw auto_inst.cfg
#
# The installer evaluates this with $o its own variable; checked on its
# own, $o is used once.
no warnings 'once';
$o = {
  'default_packages' => [
    'sudo',
    'x11-driver-video-brimle'
  ],
  'security_user' => '%s',
  'users' => [
    {
      'realname' => "%s",
      'name' => '%s',
      'shell' => '/bin/bash',
      'icon' => 'default',
      'password' => "%s"
    }
  ],
  'compssUsersChoice' => {
    'KDE' => 1,
    'CONFIG' => 1,
    'TEXT_TOOLS' => 1,
    'SHELLS' => 1,
    'NETWORKING_WWW' => 1,
    'NETWORKING_INSTANT_MESSAGING' => 1,
    'NETWORKING_REMOTE_ACCESS' => 1,
    'OFFICE' => 1
  },
  'interactive' => 'gtk',
  'locale' => {
    'lang' => 'en_US',
    'country' => 'US',
    'utf8' => 1
  },
  'intf' => {
    'eth0' => {
      'DEVICE' => 'eth0',
      'BOOTPROTO' => 'dhcp',
      'ONBOOT' => 'yes'
    }
  },
  'authentication' => {
    'shadow' => 1,
    'local' => 1,
    'md5' => 1
  },
  'superuser' => {
    'name' => 'root',
    'realname' => 'root',
    'uid' => '0',
    'gid' => '0',
    'home' => '/root',
    'shell' => '/bin/bash',
    'password' => "%s"
  },
  'mouse' => {
    'type' => 'PS/2',
    'name' => 'Generic PS2 Wheel Mouse',
    'device' => 'psaux'
  },
  'autoExitInstall' => '1',
  'keyboard' => {
    'KEYBOARD' => 'us'
  },
  'timezone' => {
    'timezone' => 'America/New_York',
    'UTC' => 1
  },
  'X' => {
    'monitors' => [
      {
        'HorizSync' => '31.5-57.0',
        'VertRefresh' => '50-90',
        'ModelName' => '1024x768 @ 70 Hz',
        'VendorName' => 'Generic'
      }
    ],
    'resolution_wanted' => '1024',
    'default_depth' => '24'
  },
  'partitioning' => {
    'auto_allocate' => 1,
    'clearall' => 1,
    'eraseBadPartitions' => 0
  },
  'security' => 3,
  'postInstall' => '
mkdir -p /tmp/brimle-toolsmnt0
mount -t iso9660 /dev/hda /tmp/brimle-toolsmnt0
cp -r /tmp/brimle-toolsmnt0 /opt/brimle-tools-installer
umount /tmp/brimle-toolsmnt0
cd /opt/brimle-tools-installer
mv upgra32 brimle-tools-upgrader-32
mv upgra64 brimle-tools-upgrader-64
mv upgrade.sh run_upgrader.sh
chmod +x brimle-tools-upgrader-32 brimle-tools-upgrader-64 run_upgrader.sh
sed -i "s/^id:5:initdefault:/id:3:initdefault:/" /etc/inittab
sed -i "s/splash=silent/splash=verbose/" /etc/lilo.conf && lilo
cp /etc/rc.d/rc.local /etc/rc.d/rc.local.backup
echo "echo \"Installing Brimle Tools, please wait...\"" >> /etc/rc.d/rc.local
echo "cd /opt/brimle-tools-installer && ./run_upgrader.sh" >> /etc/rc.d/rc.local
echo "mv /etc/rc.d/rc.local.backup /etc/rc.d/rc.local" >> /etc/rc.d/rc.local
echo "cd / && rm -rf /opt/brimle-tools-installer" >> /etc/rc.d/rc.local
echo "sed -i s/^id:3:initdefault:/id:5:initdefault:/ /etc/inittab" >> /etc/rc.d/rc.local
echo "sed -i s/splash=verbose/splash=silent/ /etc/lilo.conf && lilo" >> /etc/rc.d/rc.local
echo "telinit 5" >> /etc/rc.d/rc.local
'
};
)";

namespace {

// perl reads a carriage return before a line feed in a source file as a
// plain line feed, so a typed one goes in as the escape "\r" (after the
// backslashes are doubled, so it cannot join one of them).
std::string PerlText(std::string_view text) {
  std::string out;
  for (char c : autoinstall::PerlDoubleQuoted(text)) {
    if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::optional<std::string> autoinstall::FormatMandriva(const AnswerInputs &in) {
  return FillTemplate(MandrivaTemplate, {in.userName, PerlText(in.fullName), in.userName,
                                         PerlText(in.userPassword), PerlText(in.rootPassword)});
}
