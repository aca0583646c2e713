// What the configsrvc benchmarks share: a scratch folder for the service's state and endpoints,
// starting and stopping the real configsrvc with the example model, CPU pinning, medians and
// the cost of one fsync.
#ifndef BENCH_SERVICE_SERVICE_RUNNER_H
#define BENCH_SERVICE_SERVICE_RUNNER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace servicebench {

constexpr int kConnectMs = 5000;
constexpr int kAnswerMs = 10000;

// The folder a run keeps its files in: `dir`, or a fresh folder in /tmp when `dir` is empty,
// which is then removed with everything in it on destruction. Points $MSGPASS_DIR at
// <folder>/ep and ignores SIGPIPE, so a service that goes away fails requests instead of
// ending the benchmark.
class ScratchDir {
  public:
    explicit ScratchDir(std::string dir);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    bool own_ = false;
};

// Starts configsrvc with the example model and its database in `state`, pinned to CPU 0 when
// `pinned`, and waits until it accepts a session. -1 when it could not be started or never
// answered (a started process is then stopped again).
pid_t startService(const std::string& state, bool pinned);
void stopService(pid_t service);

// Pins the calling thread (and so the threads it starts afterwards) to CPU 0; unpin() lets it
// run anywhere again.
void pinToCpu0();
void unpin();

double median(std::vector<double> values);

// The median time, in milliseconds, of writing 512 bytes to a file in `dir` and fdatasync-ing
// it, over `samples`: the floor of a durable write there. -1 when the file cannot be written.
double fsyncCostMs(const std::string& dir, int samples);

}  // namespace servicebench

#endif  // BENCH_SERVICE_SERVICE_RUNNER_H
