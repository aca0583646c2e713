// Server: the event loop that serves the configuration protocol on a message endpoint.
//
// One thread waits on three things: the stop pipe (a signal arrived), the endpoint (requests,
// callback answers, and room on slow connections), and the committer (changes that reached the
// disk); and for a pause (a reload of the model), which it takes between requests with no write
// in flight. Requests that only read are answered at once from memory. Requests that change
// something are checked, shown to the validators registered for what they change (when there
// are any), handed to the committer, told to the subscribers and appliers once committed, and
// answered last, so a slow disk or a slow validator never delays a read and no client waits for
// an unrelated one. Each request is answered on the connection it came from; a client that has
// gone away is simply not answered. Answers and notifications are sent without waiting, so a
// client that stops reading holds up no one but itself: a subscriber is a cursor into the change
// log, sent more only as its connection drains. Every refusal is logged with the requester's
// name and pid.
#ifndef CONFIGSRVC_SERVER_H
#define CONFIGSRVC_SERVER_H

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <google/protobuf/arena.h>

#include "Callbacks.h"
#include "ChangeLog.h"
#include "Committer.h"
#include "ConfigService.h"
#include "LogThrottle.h"
#include "Records.h"
#include "msgpass.h"

namespace configsrvc {

// Callback deadline: the default, and the most a service option may set.
constexpr int kDefaultCallbackDeadlineMs = 1000;
constexpr int kMaxCallbackDeadlineMs = 10000;

struct CallbackSettings {
    uint64_t lastCommit = 0;  // the store's latest commit when serving starts
    size_t retainedChanges = kDefaultRetainedChanges;  // notifications the change log keeps
    int deadlineMs = kDefaultCallbackDeadlineMs;       // for validators' and appliers' answers
};

class Server {
  public:
    // Work that needs the server quiet: run() calls it between requests, once every write
    // already submitted is committed and answered, and serves nothing meanwhile.
    class Pause {
      public:
        virtual ~Pause() = default;
        // Readable when the pause is wanted.
        virtual int fd() const = 0;
        // May give the server what to serve from now on (serveFrom()). False ends serving: what
        // the server serves from must then still be valid, for run() to close down with.
        virtual bool run(Server* server) = 0;
    };

    Server(const ConfigService& service, RecordState* state, Committer* committer,
           const std::string& endpoint, const CallbackSettings& callbacks = {});
    virtual ~Server();

    // Opens the endpoint; from then on clients can connect. Call once everything it serves is
    // loaded, so that no client that finds the endpoint is ever refused.
    bool open(std::string* error);

    // Serves until `stopFd` becomes readable, then answers the changes already submitted and
    // closes the endpoint; pauses whenever `pause` (may be null) asks. False when serving ended
    // because waiting for work failed or a pause said so.
    bool run(int stopFd, Pause* pause = nullptr);

    // Serves from these from the next request on. Only from Pause::run(), when no write is in
    // flight; they must outlive serving, or the next call.
    void serveFrom(const ConfigService& service, RecordState* state, Committer* committer);

  private:
    // A change on its way: checked, perhaps shown to validators, then stored, then told to
    // appliers, and answered last.
    struct Change {
        uint32_t address = 0;
        pid_t pid = 0;
        uint32_t msgId = 0;
        std::unique_ptr<google::protobuf::Message> message;  // null: nobody waits for an answer
        ChangeList changes;                                  // never null
        bool checkpoint = false;
        bool validateOnly = false;  // a ValidateReq: nothing is stored
        std::string requester;
        CommonIF::eSecurityRole role = CommonIF::kUser;
        std::string submitScope;
        bool answered = false;  // its writer has its answer already (answerUnwatchedWriters)
    };
    // A change held back until its changes are on disk.
    struct Waiting {
        uint64_t ticket;
        Change change;
    };
    // A change waiting for the answers of callbacks: validators before it is stored, appliers
    // after.
    struct Asked {
        Change change;
        bool applying = false;
        std::map<uint32_t, int> due;  // connection -> answers still due from it
        std::chrono::steady_clock::time_point deadline;
        std::vector<std::string> touched;  // paths it changes, for conflicts (validation only)
        bool reboot = false;               // an applier said a reboot is needed
        std::vector<std::string> reports;  // appliers' failures, for the requester
    };
    // A request held back until a change it conflicts with is decided.
    struct Deferred {
        uint32_t msgId;
        MSG_Sender sender;
        std::string payload;
    };
    // An answer held back until its connection has been sent the notifications before it.
    struct HeldAnswer {
        uint64_t after;  // change-log index the subscriber's cursor must reach first
        uint32_t msgId;
        std::string encoded;
    };
    struct Subscriber {
        uint64_t cursor = 0;  // the next change-log entry to look at
        pid_t pid = 0;
        bool marks = false;   // asked for commit marks (WatchResumeReq)
        uint64_t marked = 0;  // the last commit mark sent
        std::deque<HeldAnswer> answers;
    };

    // Serves `first` and what the endpoint has already read, up to a round's worth; true when
    // more may be waiting.
    bool serveRequests(MSG_Msg* first);
    // What a look at the service's own events (run()'s slots) decided.
    enum class Step { kServe, kStop, kFail };
    // Looks at the service's own events without waiting: a stop; a reload (the writes drained,
    // `pause` run, the new committer's descriptor watched); committed writes, answered, as they
    // also are when `timedOut` (the receive ended at its deadline) and nothing is ready.
    Step takeEvents(::pollfd* events, bool timedOut, Pause* pause);
    // Has the endpoint's wait watch the slots' descriptors (or no longer, when !`watch`); false,
    // logged, when one could not be watched.
    bool watchEvents(const ::pollfd* events, bool watch);
    void dispatch(MSG_Msg* request);
    void serve(uint32_t id, const MSG_Sender& sender, const void* payload, size_t bytes);
    void logRefusals(uint32_t requestId, const MSG_Sender& sender, const Answer& answer);
    // Keeps what `answer` holds beyond the request's arena.
    static Change keep(const MSG_Sender& sender, Answer* answer, bool validateOnly);
    void submit(Change change);
    void finishWrites();
    void finishWrite(const FinishedWrite& done, Change change);
    // Whether the writer of `change`, just stored, is answered before its notices are made: it
    // watches nothing and no applier waits to be asked.
    bool answersFirst(const FinishedWrite& done, const Change& change) const;
    // Answers, in batch order, the finished writes that answersFirst() allows.
    void answerUnwatchedWriters();
    void endIdleSubmissions();
    // Forgets what was kept for the connections that closed since the last look.
    void forgetClosedConnections();
    void forgetConnection(uint32_t address);
    // False, said in the log, when the endpoint's name was taken away for good.
    bool stillReachable();
    // Waits until every submitted write is committed and answered; false when waiting failed.
    bool drainWrites();
    void send(uint32_t address, uint32_t msgId, const google::protobuf::MessageLite& message);
    void sendEncoded(uint32_t address, uint32_t msgId, const std::string& encoded);
    // Sends `reply` (which it takes) without waiting, and logs why a client did not get it.
    void deliver(uint32_t address, MSG_Msg* reply);
    // Answers `change`'s requester, after the notifications it must see first.
    void reply(const Change& change);

    // ---- Callbacks (ServerCallbacks.cpp) ----
    // The paths a change touches, for telling which changes conflict.
    std::vector<std::string> touchedBy(const std::vector<StoredChange>& changes) const;
    // Whether `touched` conflicts with a change waiting for validators; *asker when the sender
    // is itself one of the validators asked about it.
    bool conflicts(const std::vector<std::string>& touched, uint32_t sender, bool* asker) const;
    bool deferIfBlocked(uint32_t id, const MSG_Sender& sender, const void* payload, size_t bytes,
                        const Answer* answer);
    void serveDeferred();
    // Shows `change` to its validators; false when there are none to ask.
    bool askValidators(Change* change);
    // Tells `change`, just committed, to its appliers; false when there are none.
    bool askAppliers(Change* change);
    // Sends one callback request per covered instance and registration of `type`.
    uint64_t ask(Change* change, ConfigIF::CallbackType type, Asked* asked);
    void takeCallbackAnswer(const MSG_Sender& sender, uint32_t id, const void* payload,
                            size_t bytes);
    // Goes on with a change whose callbacks all answered: stores or answers it.
    void settle(uint64_t id);
    // Refuses a change under validation with `error` and the validators' `messages`.
    void veto(uint64_t id, CommonIF::eErrorType error, const std::vector<std::string>& messages);
    void expireAsks();
    int msUntilNextDeadline(int idleMs) const;
    // Records the notifications of a committed change in the change log.
    void logCommit(const FinishedWrite& done, const Change& change,
                   const std::vector<const std::vector<std::string>*>& before);
    void subscribe(const MSG_Sender& sender);
    void resume(const MSG_Sender& sender, const void* payload, size_t bytes);
    void pumpAll();
    void pump(uint32_t address, Subscriber* subscriber);

    const ConfigService* service_;
    RecordState* state_;
    Committer* committer_;
    std::string endpoint_;
    bool open_ = false;
    uint64_t nextTicket_ = 1;
    // Where requests and their immediate answers are made, emptied after each request: its
    // first block is ours, so serving a read allocates nothing.
    std::vector<char> arenaBlock_;
    std::unique_ptr<google::protobuf::Arena> arena_;
    Submissions submissions_;      // open on the connections, by address
    std::string encoded_;          // answers written straight as bytes, reused
    std::deque<Waiting> waiting_;  // in submission order, as the committer finishes them
    bool submitted_ = false;       // a write went to the committer since its last release()
    std::vector<FinishedWrite> finished_;
    LogThrottle throttle_;  // of the lines about requests, per sender

    CallbackSettings settings_;
    Callbacks callbacks_;
    ChangeLog log_;
    std::unordered_map<uint32_t, Subscriber> subscribers_;  // by connection
    uint64_t nextAsked_ = 1;
    std::map<uint64_t, Asked> asked_;  // by id, oldest first
    // Per connection, the ids of the changes its callback answers are for, in the order asked.
    std::unordered_map<uint32_t, std::deque<uint64_t>> asks_;
    std::deque<Deferred> deferred_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_SERVER_H
