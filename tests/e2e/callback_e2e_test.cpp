// Callbacks and notifications through the real configsrvc: validators, appliers and subscribers
// are clients of this process, each on a connection of its own and served on a thread of its
// own. A client is killed by closing its connection: that is all the service sees of a killed one.
#include <poll.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CallbackDispatcher.h"
#include "ServiceClient.h"

namespace {

using configclient::CallbackDispatcher;
using configclient::ConfigSession;
using testsupport::kAnswerMs;
using testsupport::ServiceClient;
using namespace CommonIF;

constexpr int kDeadlineMs = 300;  // the service's callback deadline in these tests
constexpr char kLocation[] = "system/location";
// How soon a write is answered once the only validator it waits for is killed: 50 ms, and more
// under the sanitizers, which make every step of the service several times slower.
#ifdef __SANITIZE_ADDRESS__
constexpr long kReleasedWithinMs = 250;
#else
constexpr long kReleasedWithinMs = 50;
#endif

// "v PATH VALUES" for a notice of a value: its path of names joined by '.', its values by ','.
std::string lineOf(const ConfigIF::ConfigChangedNtfy& notice) {
    std::string line = "v ";
    for (const ConfigIF::Node& node : notice.instance_val().instance().node()) {
        line += (line.size() > 2 ? "." : "") + node.name();
    }
    for (int i = 0; i < notice.instance_val().value_size(); ++i) {
        line += (i == 0 ? " " : ",") + notice.instance_val().value(i);
    }
    return line;
}

// What a resuming subscriber recorded over its connections: the notices of each commit, once its
// mark came, and the last mark.
struct Record {
    std::vector<std::string> lines;
    uint64_t mark = 0;
    bool resynced = false;
};

// A client registered for `path` as `mode` says: watch (notifications kept as lineOf() lines),
// resume (the same into `record`, after resuming from its mark, or from now on when it has none;
// "resume-late" registers first and resumes after),
// veto (a validator that refuses with "vetoed by NAME", not asked about the writes of the client
// named "skipper"), write (a validator that first writes what it is asked about, and keeps
// "wrote STATUS ERROR"), reboot (an applier that asks for a reboot), hang (a validator never
// served: asked, it never answers). Others are served from the start until pause(). Its
// connection closes with it, unannounced, at whatever point it had read to.
class Peer : public configclient::CallbackHandler {
  public:
    Peer(const std::string& mode, const std::string& name, const std::string& path,
         Record* record = nullptr)
        : mode_(mode), record_(record), client_(name), dispatcher_(&client_.session, this) {
        eErrorType error = kErrNoError;
        uint64_t sequence = 0;
        const auto resume = [&] {
            EXPECT_TRUE(record == nullptr ||
                        dispatcher_.resume(name, kAdmin,
                                           record->mark != 0 ? &record->mark : nullptr, kAnswerMs,
                                           &error, &sequence) == ConfigSession::kOk);
        };
        const bool late = mode == "resume-late";
        if (!late) {
            resume();
        }
        const std::string type = mode == "watch" || mode.rfind("resume", 0) == 0 ? "kChangeNotify"
                                 : mode == "reboot"                              ? "kOnChange"
                                                    : "kDynamicValidator";
        EXPECT_EQ(client_.call("RegisterClientCallback", kAdmin,
                               "node_name: '" + path + "' user_context: 'ctx' type: " + type +
                                   (mode == "veto" ? " validate_skipname: 'skipper'" : "")),
                  kErrNoError)
            << name << " resumed with " << error;
        if (late) {
            resume();
        }
        if (mode != "hang") {
            serve();
        }
    }
    ~Peer() override { pause(); }

    void serve() {
        stop_ = false;
        thread_ = std::thread([this] {
            int handled = 0;
            while (!stop_ && (handled = dispatcher_.dispatch(1)) >= 0) {
            }
            gone_ = handled < 0;
        });
    }
    void pause() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    // Whether a request waits for it unread, within five seconds (for a peer not served).
    bool asked() {
        pollfd ready{dispatcher_.pollFd(), POLLIN, 0};
        return poll(&ready, 1, 5000) == 1;
    }
    // Whether the service closed its connection, seen once it is served.
    bool gone() const { return gone_; }
    // Waits until it kept (or recorded) `count` lines starting with `prefix`.
    bool holds(const std::string& prefix, size_t count = 1, int timeoutMs = 5000) {
        return testsupport::waitFor(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                const std::vector<std::string>& kept = record_ ? record_->lines : lines_;
                return std::count_if(kept.begin(), kept.end(), [&](const std::string& line) {
                           return line.rfind(prefix, 0) == 0;
                       }) >= static_cast<long>(count);
            },
            timeoutMs);
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

    eErrorType validate(const ConfigIF::DynamicValidateReq& request,
                        std::string* message) override {
        if (mode_ == "write") {
            ConfigIF::WriteReq write;
            write.set_name(client_.session.name());
            write.set_role(kAdmin);
            *write.mutable_instance_val() = request.instance_val();
            ConfigIF::WriteRsp response;
            const int status = client_.session.write(write, &response, kAnswerMs);
            keep("wrote " + std::to_string(status) + " " +
                 std::to_string(response.ret_message().error()));
        }
        if (mode_ == "veto") {
            *message = "vetoed by " + client_.session.name();
            return kErrBadParameter;
        }
        return kErrNoError;
    }
    eErrorType apply(const ConfigIF::OnChangeReq&, bool* reboot, std::string*) override {
        *reboot = true;
        return kErrNoError;
    }
    void configChanged(const ConfigIF::ConfigChangedNtfy& notice) override { keep(lineOf(notice)); }
    void committed(uint64_t sequence) override {
        std::lock_guard<std::mutex> lock(mutex_);
        record_->lines.insert(record_->lines.end(), lines_.begin(), lines_.end());
        lines_.clear();
        record_->mark = sequence;
    }
    void resyncNeeded(uint64_t, uint64_t) override { record_->resynced = true; }

  private:
    void keep(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }

    const std::string mode_;
    Record* record_;
    ServiceClient client_;
    CallbackDispatcher dispatcher_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> gone_{false};
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

class Callbacks : public testing::Test {
  protected:
    void SetUp() override { start({"--callback-timeout", std::to_string(kDeadlineMs)}); }

    // (Re)starts the service with `options`, and connects the writer to it.
    void start(const std::vector<std::string>& options) {
        writer_.reset();
        service_.stop(SIGKILL);
        service_.options = options;
        ASSERT_TRUE(service_.start(&error_)) << error_;
        writer_ = std::make_unique<ServiceClient>("writer");
    }

    // The writer's write of `value` to system/location under the client name `name`: the whole
    // result, with the messages of validators and whether a reboot is asked for.
    ConfigIF::ReturnMessage write(const std::string& value, const std::string& name = "test") {
        ConfigIF::WriteReq request = testsupport::writeRequest(kLocation, {value}, kAdmin);
        request.set_name(name);
        ConfigIF::WriteRsp response;
        EXPECT_EQ(writer_->session.write(request, &response, kAnswerMs), ConfigSession::kOk);
        return response.ret_message();
    }

    testsupport::ServiceProcess service_;
    std::unique_ptr<ServiceClient> writer_;
    std::string error_;
};

struct CallbackCase {
    std::string mode;  // of the peer registered for system
    const char* writerName;
    eErrorType expected;
    const char* message;  // in the writer's error messages, "" for none
    bool reboot;
    std::string kept;   // by the peer once the write is answered, "" for nothing more
    bool goes = false;  // the peer goes once asked
};

// What a validator answers reaches the writer and decides whether the value is stored; an
// applier's reboot_required reaches the writer; a validator that writes what it is asked about
// is refused at once, not deadlocked. While a validator keeps a write waiting, everyone else's
// reads are answered at once; one that goes releases the write at once. Each peer goes before
// the next case: its registration goes with its connection, so a veto of the past holds up
// nothing.
TEST_F(Callbacks, ValidatorsDecideAndAppliersAreHeardByTheWriter) {
    const CallbackCase cases[] = {
        {"veto", "skipper", kErrNoError, "", false, ""},  // validate_skipname: not asked
        {"veto", "test", kErrBadParameter, "vetoed by v-veto", false, ""},
        {"hang", "test", kErrTimeOut, "did not answer within 300 ms", false, ""},
        {"hang", "test", kErrNoError, "", false, "", true},
        {"reboot", "test", kErrNoError, "", true, ""},
        {"write", "test", kErrNoError, "", false, "wrote 0 " + std::to_string(kErrBadState)},
    };
    ServiceClient reader("reader");
    int round = 0;
    for (const CallbackCase& c : cases) {
        SCOPED_TRACE(c.mode + " for " + c.writerName + (c.goes ? ", which goes" : ""));
        auto callback = std::make_unique<Peer>(c.mode, "v-" + c.mode, "system");
        const std::string value = "value-" + std::to_string(++round);
        const std::string before = writer_->value(kLocation);
        const long long start = testsupport::monotonicNs();
        ConfigIF::ReturnMessage result;
        long long answered = 0;
        std::thread writer([&] {
            result = write(value, c.writerName);
            answered = testsupport::monotonicNs();
        });
        EXPECT_TRUE(c.mode != "hang" || callback->asked());
        for (int i = 0; i < 20 && c.mode == "hang"; ++i) {
            const long long read = testsupport::monotonicNs();
            EXPECT_EQ(reader.value("audio/volume"), "50");
            EXPECT_LT(testsupport::msSince(read), 50);
        }
        const long long gone = testsupport::monotonicNs();
        if (c.goes) {
            callback.reset();
        }
        writer.join();
        const long took = (answered - start) / 1000000;
        EXPECT_EQ(result.error(), c.expected);
        EXPECT_EQ(result.reboot_required(), c.reboot);
        const std::string messages = result.ShortDebugString();
        EXPECT_NE(messages.find(c.message), std::string::npos) << messages;
        EXPECT_EQ(writer_->value(kLocation), c.expected == kErrNoError ? value : before);
        if (c.goes) {
            EXPECT_LT((answered - gone) / 1000000, kReleasedWithinMs) << "waited for a peer gone";
        } else if (c.expected == kErrTimeOut) {
            EXPECT_GE(took, kDeadlineMs - 5);
            EXPECT_LT(took, kDeadlineMs + 50);
        } else {
            EXPECT_LT(took, kDeadlineMs);
        }
        EXPECT_TRUE(c.kept.empty() || callback->holds(c.kept));
    }
}

// Writes `count` distinct values to system/location from `threads` connections at once (their
// commits share syncs); each value says its thread and its number there: "PREFIX-T-I".
void writeMany(int count, int threads, const std::string& prefix) {
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([=] {
            ServiceClient writer(prefix + "-writer-" + std::to_string(t));
            for (int i = t; i < count; i += threads) {
                const std::string value =
                    prefix + "-" + std::to_string(t) + "-" + std::to_string(i / threads);
                ASSERT_EQ(writer.write(kLocation, {value}), kErrNoError);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

// Whether `seen` ("v system.location VALUE" lines) holds the `count` values of writeMany() with
// `prefix` exactly once each, every thread's in its order.
::testing::AssertionResult holdsEveryWriteOnceInOrder(const std::vector<std::string>& seen,
                                                      const std::string& prefix, int count) {
    std::map<int, int> next;  // thread -> its next number
    int matched = 0;
    const std::string head = "v system.location " + prefix + "-";
    for (const std::string& line : seen) {
        if (line.rfind(head, 0) != 0) {
            continue;
        }
        int thread = -1;
        int number = -1;
        std::sscanf(line.c_str() + head.size(), "%d-%d", &thread, &number);
        if (number != next[thread]) {
            return ::testing::AssertionFailure()
                   << "thread " << thread << ": got " << number << ", expected " << next[thread];
        }
        ++next[thread];
        ++matched;
    }
    if (matched != count) {
        return ::testing::AssertionFailure() << matched << " of " << count << " writes seen";
    }
    return ::testing::AssertionSuccess();
}

// A subscriber that reads nothing costs the others nothing and the service less than 1 MiB
// while 10,000 commits from 8 writers pass it by; once it reads again it gets every one of them,
// once, in the order the other subscriber saw.
TEST_F(Callbacks, ASubscriberFarBehindCostsNothingAndGetsEverything) {
    constexpr int kBehind = 10000;
    // The log reaches its bound first: from then on what it keeps no longer grows.
    start({"--retain-changes", std::to_string(kBehind + 2000)});
    Peer slow("watch", "slow", "system.location");
    Peer other("watch", "other", "system.location");
    writeMany(kBehind + 2000, 8, "warm");
    ASSERT_TRUE(other.holds("v system.location warm-7-1499"))
        << "the warm-up did not reach the subscribers";
    slow.pause();
    const long before = testsupport::statusKiB(service_.pid(), "VmRSS");
    writeMany(kBehind, 8, "behind");
    const long after = testsupport::statusKiB(service_.pid(), "VmRSS");
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(after - before, 1024) << before << " KiB before, " << after << " KiB after";
#else
    // The sanitizer's allocator holds freed memory back on purpose: its size says nothing here.
    (void)before;
    (void)after;
#endif
    EXPECT_TRUE(other.holds("v system.location behind-", kBehind, 20000));
    EXPECT_TRUE(holdsEveryWriteOnceInOrder(other.lines(), "behind", kBehind));
    slow.serve();
    EXPECT_TRUE(slow.holds("v system.location behind-", kBehind, 20000));
    EXPECT_TRUE(slow.lines() == other.lines()) << "the subscribers saw different changes or orders";
}

// A subscriber that falls behind what the log keeps is disconnected, with a line naming it,
// never left with a gap it cannot see.
TEST_F(Callbacks, ASubscriberBeyondTheLogIsDisconnectedNotSkipped) {
    start({"--retain-changes", "100"});
    Peer slow("watch", "slow", "system.location");
    slow.pause();
    // Long values, so that what the connection holds fills well before 4,000 are written.
    const std::string padding(200, 'p');
    for (int i = 0; i < 4000 && service_.output().find("fell more than") == std::string::npos;
         ++i) {
        ASSERT_EQ(writer_->write(kLocation, {padding + std::to_string(i)}), kErrNoError);
    }
    EXPECT_TRUE(service_.waitForOutput("fell more than 100 notifications behind: disconnected"));
    slow.serve();
    EXPECT_TRUE(testsupport::waitFor([&] { return slow.gone(); }))
        << "it reads the end of its connection, and stops";
    // What it got before is a run without gaps, from the first write on.
    const std::vector<std::string> seen = slow.lines();
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], "v system.location " + padding + std::to_string(i));
    }
}

// A subscriber that goes away and comes back 1,000 times under a stream of writes, resuming each
// time after the last commit it recorded: in the end it recorded every write once, in order.
TEST_F(Callbacks, ASubscriberGoneAThousandTimesResumesWithoutGapsOrRepeats) {
    constexpr int kCycles = 1000;
    Record record;
    auto first = std::make_unique<Peer>("resume", "resumer", "system.location", &record);
    std::atomic<bool> stop{false};
    std::atomic<int> written{0};
    std::thread writer([&] {
        ServiceClient stream("stream");
        while (!stop) {
            ASSERT_EQ(stream.write(kLocation, {"s-0-" + std::to_string(written)}), kErrNoError);
            ++written;
        }
    });
    EXPECT_TRUE(first->holds("v "));
    first.reset();
    std::mt19937 random(20261123);
    for (int cycle = 0; cycle < kCycles && !HasFailure(); ++cycle) {
        Peer subscriber("resume", "resumer", "system.location", &record);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    }
    stop = true;
    writer.join();
    EXPECT_GT(written, kCycles / 10) << "too few writes to tell anything";
    Peer last("resume", "resumer", "system.location", &record);
    EXPECT_TRUE(last.holds("v system.location s-0-" + std::to_string(written - 1), 1, 10000));
    EXPECT_FALSE(record.resynced);
    EXPECT_TRUE(holdsEveryWriteOnceInOrder(record.lines, "s", written));
}

// A subscriber that registers again before it resumes, rather than after, is sent from its mark
// on what it missed all the same: the resume takes its registration back to that point.
TEST_F(Callbacks, ASubscriberThatRegistersBeforeResumingGetsWhatItMissed) {
    Record record;
    {
        Peer before("resume", "resumer", "system.location", &record);
        write("r-0-0");
        EXPECT_TRUE(before.holds("v system.location r-0-0"));
    }
    for (int i = 1; i < 5; ++i) {
        write("r-0-" + std::to_string(i));
    }
    Peer after("resume-late", "resumer", "system.location", &record);
    EXPECT_TRUE(after.holds("v system.location r-0-4"));
    EXPECT_TRUE(holdsEveryWriteOnceInOrder(record.lines, "r", 5));
}

// A writer that also watches gets the notification of its own change before the answer to its
// write: once the answer is in, the notification is there already.
TEST_F(Callbacks, AWriterThatWatchesHearsOfItsChangeBeforeItsAnswer) {
    struct Counter : configclient::CallbackHandler {
        void configChanged(const ConfigIF::ConfigChangedNtfy& notice) override {
            seen.push_back(notice.instance_val().value(0));
        }
        std::vector<std::string> seen;
    } counter;
    configclient::CallbackDispatcher dispatcher(&writer_->session, &counter);
    ASSERT_EQ(
        writer_->call("RegisterClientCallback", kAdmin,
                      "node_name: 'system.location' type: kChangeNotify user_context: 'mine'"),
        kErrNoError);
    for (int i = 0; i < 20; ++i) {
        const std::string value = "own-" + std::to_string(i);
        ASSERT_EQ(writer_->write(kLocation, {value}), kErrNoError);
        EXPECT_EQ(dispatcher.dispatch(0), 1);
        ASSERT_FALSE(counter.seen.empty());
        EXPECT_EQ(counter.seen.back(), value);
    }
}

}  // namespace
