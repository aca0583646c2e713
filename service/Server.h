// Server: the event loop that serves the configuration protocol on a message endpoint.
//
// One thread waits on three things: the stop pipe (a signal arrived), the endpoint (requests),
// and the committer (changes that reached the disk); and for a pause (a reload of the model),
// which it takes between requests with no write in flight. Requests that only read are answered
// at once from memory. Requests that change something are checked, handed to the committer, and
// answered once committed, so a slow disk never delays a read and no client waits for another
// one's answer. Each request is answered on the connection it came from; a client that has gone
// away is simply not answered. Answers are sent without waiting, so a client that stops reading
// them holds up no one but itself. Every refusal is logged with the requester's name and pid.
#ifndef CONFIGSRVC_SERVER_H
#define CONFIGSRVC_SERVER_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/arena.h>

#include "Committer.h"
#include "ConfigService.h"
#include "LogThrottle.h"
#include "Records.h"
#include "msgpass.h"

namespace configsrvc {

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
           const std::string& endpoint);
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
    // An answer held back until its changes are on disk.
    struct Waiting {
        uint64_t ticket;
        uint32_t address;
        uint32_t msgId;
        std::unique_ptr<google::protobuf::Message> message;
    };

    // Serves what the endpoint holds, up to a round's worth; true when more may be waiting.
    bool serveRequests();
    void dispatch(MSG_Msg* request);
    void submit(const MSG_Sender& sender, Answer* answer);
    void logRefusals(uint32_t requestId, const MSG_Sender& sender, const Answer& answer);
    void finishWrites();
    void endIdleSubmissions();
    // Ends the submissions of the connections that closed since the last look.
    void endSubmissionsOfClosedConnections();
    // Waits until every submitted write is committed and answered; false when waiting failed.
    bool drainWrites();
    void send(uint32_t address, uint32_t msgId, const google::protobuf::MessageLite& message);
    void sendEncoded(uint32_t address, uint32_t msgId, const std::string& encoded);
    // Sends `reply` (which it takes) without waiting, and logs why a client did not get it.
    void deliver(uint32_t address, MSG_Msg* reply);

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
    std::vector<FinishedWrite> finished_;
    LogThrottle throttle_;  // of the lines about requests, per sender
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_SERVER_H
