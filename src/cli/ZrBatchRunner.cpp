#include "ZrBatchRunner.h"

#include "ZrBatchProgress.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Signals reach the loop through a pipe that poll() watches.
int wakeFds[2] = {-1, -1};
volatile sig_atomic_t interrupts = 0, terminate = 0;

void onSignal(int sig) {
  const int saved = errno;
  if (sig == SIGINT)
    interrupts = interrupts + 1;
  else if (sig == SIGTERM || sig == SIGHUP)
    terminate = 1;
  char c = 0;
  if (wakeFds[1] >= 0 && ::write(wakeFds[1], &c, 1) < 0) {
    // The pipe is full: the loop wakes anyway.
  }
  errno = saved;
}

struct Child {
  size_t job = 0;
  pid_t pid = 0;
  int fd = -1, log = -1;
  bool exited = false;
  int status = 0;
  std::string pending; // a line not yet ended
  ZrBatchRunner::Scan scan;
  std::chrono::steady_clock::time_point started;
};

void setNonBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  fcntl(fd, F_SETFD, FD_CLOEXEC);
}

void writeAll(int fd, const char* data, size_t n) {
  while (fd >= 0 && n > 0) {
    ssize_t w = ::write(fd, data, n);
    if (w < 0 && errno == EINTR)
      continue;
    if (w <= 0)
      return;
    data += w;
    n -= size_t(w);
  }
}

std::string quoteArg(const std::string& a) {
  if (!a.empty() && a.find_first_of(" \t'\"\\$`*?;&|<>()") == std::string::npos)
    return a;
  std::string q = "'";
  for (char c : a)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Starts one job: the child gets the pipe as stdout and stderr, /dev/null as
// stdin, a process group of its own, and SIGTERM when the batch dies.
bool spawn(const std::string& program, const ZrBatchRunner::Job& job, Child& c,
           std::string& error) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    error = std::string("cannot start the row: ") + std::strerror(errno);
    return false;
  }
  std::vector<std::string> words{"zrreg"};
  words.insert(words.end(), job.args.begin(), job.args.end());
  std::vector<char*> argv;
  for (std::string& w : words)
    argv.push_back(&w[0]);
  argv.push_back(nullptr);
  // The environment, with the job's variables in place of those it names.
  std::vector<std::string> envWords;
  for (char** e = environ; *e; e++) {
    bool replaced = false;
    for (const std::string& kv : job.env)
      replaced |= std::strncmp(*e, kv.c_str(), kv.find('=') + 1) == 0;
    if (!replaced)
      envWords.push_back(*e);
  }
  envWords.insert(envWords.end(), job.env.begin(), job.env.end());
  std::vector<char*> envp;
  for (std::string& w : envWords)
    envp.push_back(&w[0]);
  envp.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    error = std::string("cannot start the row: ") + std::strerror(errno);
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here to exec.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
      _exit(127);
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE})
      sigaction(s, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0)
      dup2(devnull, 0);
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    if (!job.folder.empty() && chdir(job.folder.c_str()) != 0) {
      static const char msg[] = "zrreg batch: cannot enter the manifest's folder\n";
      (void)!::write(2, msg, sizeof msg - 1);
      _exit(127);
    }
    execve(program.c_str(), argv.data(), envp.data());
    static const char msg[] = "zrreg batch: cannot run zrreg\n";
    (void)!::write(2, msg, sizeof msg - 1);
    _exit(127);
  }
  setpgid(pid, pid); // also here, so that a signal sent at once finds the group
  close(fds[1]);
  setNonBlocking(fds[0]);
  c.pid = pid;
  c.fd = fds[0];
  c.started = std::chrono::steady_clock::now();
  return true;
}

} // namespace

ZrBatchRunner::ZrBatchRunner(const std::string& prog, int par, ZrBatchProgress* p)
    : program(prog), parallel(par > 0 ? par : 1), progress(p) {}

void ZrBatchRunner::scanLine(const std::string& raw, Scan& scan) {
  size_t b = raw.find_first_not_of(" \t");
  if (b == std::string::npos)
    return;
  const std::string line = raw.substr(b);
  // "[ 42%] status", the progress lines of a command whose stderr is no
  // terminal.
  int pct = 0;
  size_t i = 1;
  if (line[0] == '[') {
    while (i < line.size() && line[i] == ' ')
      i++;
    size_t digits = i;
    while (i < line.size() && std::isdigit((unsigned char)line[i]))
      pct = pct * 10 + (line[i++] - '0');
    if (i > digits && line.compare(i, 2, "%]") == 0 && pct <= 100) {
      scan.percent = pct;
      size_t s = line.find_first_not_of(' ', i + 2);
      scan.status = s == std::string::npos ? std::string() : line.substr(s);
      return;
    }
  }
  // The optimizer's "Metric result = 1.234" (or ": 1.234"); messages that
  // do not end their line may share one, so the last on the line counts.
  static const char key[] = "Metric result";
  for (size_t at = line.find(key); at != std::string::npos; at = line.find(key, at + 1)) {
    size_t v = line.find_first_not_of(" =:", at + sizeof key - 1);
    if (v == std::string::npos)
      continue;
    const char* begin = line.c_str() + v;
    char* end = nullptr;
    std::strtod(begin, &end);
    if (end != begin)
      scan.metric.assign(begin, size_t(end - begin));
  }
  if (line.compare(0, 5, "zrreg") == 0)
    scan.lastError = line;
  else
    scan.lastLine = line;
}

std::string ZrBatchRunner::describeEnd(int exitCode, int signal, bool stopped, const Scan& scan) {
  if (stopped)
    return "stopped by the batch before it finished";
  if (signal) {
    const char* name = strsignal(signal);
    std::string what = signal == SIGKILL
                           ? "killed (signal 9; out of memory?)"
                           : std::string("ended by signal ") + std::to_string(signal) + " (" +
                                 (name ? name : "?") + ")";
    return what;
  }
  if (exitCode == 0)
    return std::string();
  if (!scan.lastError.empty())
    return scan.lastError;
  if (!scan.lastLine.empty())
    return scan.lastLine;
  return "exit status " + std::to_string(exitCode);
}

void ZrBatchRunner::run(const std::vector<Job>& jobs,
                        const std::function<void(size_t, const Outcome&)>& finished) {
  stopRequested = false;
  interrupts = 0;
  terminate = 0;
  if (pipe(wakeFds) == 0) {
    setNonBlocking(wakeFds[0]);
    setNonBlocking(wakeFds[1]);
  }
  struct sigaction sa, oldInt, oldTerm, oldHup, oldChld;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, &oldInt);
  sigaction(SIGTERM, &sa, &oldTerm);
  sigaction(SIGHUP, &sa, &oldHup);
  sa.sa_flags = SA_NOCLDSTOP;
  sigaction(SIGCHLD, &sa, &oldChld);

  std::vector<Child> running;
  std::vector<bool> slotBusy(parallel, false);
  std::vector<int> slotOf(jobs.size(), -1);
  size_t next = 0;
  bool killed = false, announced = false;
  std::chrono::steady_clock::time_point killedAt;

  for (;;) {
    if ((interrupts > 0 || terminate) && !announced) {
      announced = true;
      stopRequested = true;
      if (progress && interrupts == 1 && !terminate)
        progress->note("zrreg batch: stopping after the running rows (Ctrl-C again stops "
                       "them now)");
    }
    const bool hardStop = terminate || interrupts > 1;
    if (hardStop)
      stopRequested = true;
    while (!stopRequested && int(running.size()) < parallel && next < jobs.size()) {
      const size_t j = next++;
      int slot = 0;
      while (slotBusy[slot])
        slot++;
      Child c;
      c.job = j;
      std::string error;
      if (!jobs[j].log.empty()) {
        c.log = open(jobs[j].log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        std::string head = "#";
        for (const std::string& a : jobs[j].args)
          head += " " + quoteArg(a);
        head = "# zrreg" + head.substr(1) + "\n# in " +
               (jobs[j].folder.empty() ? std::string(".") : jobs[j].folder) + "\n";
        writeAll(c.log, head.data(), head.size());
      }
      if (!spawn(program, jobs[j], c, error)) {
        if (c.log >= 0)
          close(c.log);
        Outcome o;
        o.message = error;
        finished(j, o);
        continue;
      }
      slotBusy[slot] = true;
      slotOf[j] = slot;
      if (progress)
        progress->started(slot, jobs[j].label);
      running.push_back(std::move(c));
    }
    if (running.empty())
      break;
    if (hardStop && !killed) {
      killed = true;
      killedAt = std::chrono::steady_clock::now();
      for (Child& c : running)
        if (!c.exited)
          kill(-c.pid, SIGTERM);
    }
    if (killed &&
        std::chrono::duration<double>(std::chrono::steady_clock::now() - killedAt).count() > 10) {
      for (Child& c : running)
        if (!c.exited)
          kill(-c.pid, SIGKILL);
    }

    std::vector<pollfd> fds;
    fds.push_back({wakeFds[0], POLLIN, 0});
    for (Child& c : running)
      fds.push_back({c.fd, POLLIN, 0});
    poll(fds.data(), fds.size(), progress && progress->isTerminal() ? 100 : 1000);
    char drain[64];
    while (wakeFds[0] >= 0 && ::read(wakeFds[0], drain, sizeof drain) > 0) {
    }

    for (size_t k = 0; k < running.size(); k++) {
      Child& c = running[k];
      if (!c.exited) {
        int st = 0;
        if (waitpid(c.pid, &st, WNOHANG) == c.pid) {
          c.exited = true;
          c.status = st;
        }
      }
      // Read what there is; after the exit, everything that is left (a
      // grandchild holding the pipe is not waited for).
      char buf[16384];
      for (;;) {
        ssize_t n = c.fd >= 0 ? ::read(c.fd, buf, sizeof buf) : 0;
        if (n < 0 && errno == EINTR)
          continue;
        if (n <= 0)
          break;
        writeAll(c.log, buf, size_t(n));
        c.pending.append(buf, size_t(n));
        size_t startAt = 0;
        for (size_t e; (e = c.pending.find_first_of("\r\n", startAt)) != std::string::npos;
             startAt = e + 1)
          scanLine(c.pending.substr(startAt, e - startAt), c.scan);
        c.pending.erase(0, startAt);
        if (c.pending.size() > 65536) { // no line is this long; keep memory bounded
          scanLine(c.pending, c.scan);
          c.pending.clear();
        }
      }
      if (progress && c.scan.percent >= 0)
        progress->progress(slotOf[c.job], c.scan.percent, c.scan.status);
      if (!c.exited)
        continue;
      if (!c.pending.empty())
        scanLine(c.pending, c.scan);
      if (c.fd >= 0)
        close(c.fd);
      if (c.log >= 0)
        close(c.log);
      Outcome o;
      o.slot = slotOf[c.job];
      o.pid = c.pid;
      o.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - c.started).count();
      if (WIFEXITED(c.status))
        o.exitCode = WEXITSTATUS(c.status);
      else if (WIFSIGNALED(c.status))
        o.signal = WTERMSIG(c.status);
      o.stopped = killed && o.exitCode != 0;
      o.message = describeEnd(o.exitCode, o.signal, o.stopped, c.scan);
      o.metric = c.scan.metric;
      const size_t job = c.job;
      slotBusy[o.slot] = false;
      running.erase(running.begin() + k);
      k--;
      finished(job, o);
    }
    if (progress)
      progress->tick();
  }

  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
  sigaction(SIGHUP, &oldHup, nullptr);
  sigaction(SIGCHLD, &oldChld, nullptr);
  for (int& fd : wakeFds) {
    if (fd >= 0)
      close(fd);
    fd = -1;
  }
}
