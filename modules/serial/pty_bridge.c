/* pty_bridge: a null-modem cable between two COM ports of a Wine prefix, for the Windows serial
 * tests. A native helper (Wine cannot make pseudo-terminals itself): it creates two
 * pseudo-terminals, links <dosdevices>/<a> and <dosdevices>/<b> to their tty sides (Wine opens
 * "\\.\<A>" through such a link), copies every byte between the two, and runs the command given
 * after "--" with ORLENDA_TEST_COM_MODULE=<A> and ORLENDA_TEST_COM_PEER=<B> in its environment.
 * It ends with the command's exit status, removing the links; a command still running after
 * 240 s is killed.
 *
 *   pty_bridge <dosdevices folder> <a> <b> -- <command> [arguments...]
 *
 * POSIX only; built and run by serial_wine_test.sh. */
#define _GNU_SOURCE
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#define LIMIT_SECONDS 240

typedef struct End {
  int master;
  int tty; /* held open so that the master never reads a hang-up between the tests' opens */
  char link[4096];
} End;

static int MakeEnd(End* end, const char* folder, const char* name) {
  struct termios raw;
  const char* tty;
  end->master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (end->master < 0 || grantpt(end->master) != 0 || unlockpt(end->master) != 0) return 0;
  tty = ptsname(end->master);
  end->tty = tty != NULL ? open(tty, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
  if (end->tty < 0 || tcgetattr(end->tty, &raw) != 0) return 0;
  cfmakeraw(&raw);
  tcsetattr(end->tty, TCSANOW, &raw);
  snprintf(end->link, sizeof end->link, "%s/%s", folder, name);
  unlink(end->link);
  return symlink(tty, end->link) == 0;
}

/* Copies what one master has to the other; the writes wait, so nothing is dropped. */
static void Copy(int from, int to) {
  char buffer[65536];
  ssize_t n = read(from, buffer, sizeof buffer), at = 0;
  while (n > 0 && at < n) {
    const ssize_t put = write(to, buffer + at, (size_t)(n - at));
    if (put > 0) {
      at += put;
    } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
      return;
    } else {
      struct pollfd p = {to, POLLOUT, 0};
      poll(&p, 1, 100);
    }
  }
}

int main(int argc, char** argv) {
  End a, b;
  char upper[64];
  pid_t child;
  int status = 1, i;
  const time_t started = time(NULL);
  if (argc < 6 || strcmp(argv[4], "--") != 0) {
    fprintf(stderr, "usage: pty_bridge <dosdevices folder> <a> <b> -- <command> [arguments...]\n");
    return 2;
  }
  if (!MakeEnd(&a, argv[1], argv[2]) || !MakeEnd(&b, argv[1], argv[3])) {
    perror("pty_bridge: cannot make the ports");
    return 2;
  }
  for (i = 0; argv[2][i] != 0 && i < 63; ++i) upper[i] = (char)toupper((unsigned char)argv[2][i]);
  upper[i] = 0;
  setenv("ORLENDA_TEST_COM_MODULE", upper, 1);
  for (i = 0; argv[3][i] != 0 && i < 63; ++i) upper[i] = (char)toupper((unsigned char)argv[3][i]);
  upper[i] = 0;
  setenv("ORLENDA_TEST_COM_PEER", upper, 1);

  child = fork();
  if (child == 0) {
    execvp(argv[5], argv + 5);
    perror("pty_bridge: cannot run the command");
    _exit(127);
  }
  for (;;) {
    struct pollfd p[2] = {{a.master, POLLIN, 0}, {b.master, POLLIN, 0}};
    if (waitpid(child, &status, WNOHANG) == child) break;
    if (time(NULL) - started > LIMIT_SECONDS) {
      fprintf(stderr, "pty_bridge: the command ran too long; killed\n");
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      break;
    }
    if (poll(p, 2, 100) > 0) {
      if (p[0].revents & POLLIN) Copy(a.master, b.master);
      if (p[1].revents & POLLIN) Copy(b.master, a.master);
    }
  }
  unlink(a.link);
  unlink(b.link);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
