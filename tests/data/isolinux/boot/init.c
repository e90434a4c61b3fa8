/* The whole initial ramdisk of the boot tests: prints the kernel command
 * line on the first serial port, whatever console the command line chose,
 * and restarts the machine (QEMU runs with -no-reboot, so it exits). Built
 * statically at test time. */
#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <termios.h>
#include <unistd.h>

int main(void) {
  static const char prefix[] = "guestprep-init cmdline: ";
  char line[4096];
  ssize_t len = 0;
  mount("devtmpfs", "/dev", "devtmpfs", 0, 0);
  mount("proc", "/proc", "proc", 0, 0);
  int in = open("/proc/cmdline", O_RDONLY);
  if (in >= 0) {
    len = read(in, line, sizeof line);
  }
  int out = open("/dev/ttyS0", O_WRONLY | O_NOCTTY);
  if (out >= 0) {
    write(out, prefix, strlen(prefix));
    if (len > 0) {
      write(out, line, (size_t)len);
    }
    tcdrain(out);
  }
  reboot(RB_AUTOBOOT);
  return 0;
}
