// Server: the event loop that serves the configuration protocol on a message endpoint.
//
// One thread waits on three things: the stop pipe (a signal arrived), the endpoint (requests),
// and the committer (writes that reached the disk). Reads are answered at once from memory.
// Writes are checked, handed to the committer, and answered once committed, so a slow disk
// never delays a read and no client waits for another one's answer. Each request is answered
// on the connection it came from; a client that has gone away is simply not answered. Answers
// are sent without waiting, so a client that stops reading them holds up no one but itself.
#ifndef CONFIGSRVC_SERVER_H
#define CONFIGSRVC_SERVER_H

#include <cstdint>
#include <string>
#include <vector>

#include "Committer.h"
#include "ConfigService.h"
#include "ValueStore.h"
#include "msgpass.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace configsrvc {

class Server {
  public:
    Server(const ConfigService& service, ValueStore* store, Committer* committer,
           const std::string& endpoint);
    virtual ~Server();

    // Opens the endpoint; from then on clients can connect. Call once everything it serves is
    // loaded, so that no client that finds the endpoint is ever refused.
    bool open(std::string* error);

    // Serves until `stopFd` becomes readable, then answers the writes already submitted and
    // closes the endpoint. False when serving ended because waiting for work failed.
    bool run(int stopFd);

  private:
    struct Command {
        uint32_t requestId;
        void (Server::*handle)(const MSG_Msg* request, const MSG_Sender& sender);
    };
    static const Command kCommands[];

    // Serves what the endpoint holds, up to a round's worth; true when more may be waiting.
    bool serveRequests();
    void dispatch(MSG_Msg* request);
    void handleRead(const MSG_Msg* request, const MSG_Sender& sender);
    void handleWrite(const MSG_Msg* request, const MSG_Sender& sender);
    void finishWrites();
    void send(uint32_t address, uint32_t msgId, const google::protobuf::MessageLite& message);

    const ConfigService& service_;
    ValueStore* store_;
    Committer* committer_;
    std::string endpoint_;
    bool open_ = false;
    std::vector<FinishedWrite> finished_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_SERVER_H
