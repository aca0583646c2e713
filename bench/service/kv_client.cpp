// The client side of bench/service/compare_kv: N client processes that each make one request at
// a time, for a fixed time, against configsrvc or a key-value server speaking the RESP protocol
// over a Unix socket. Both are asked the same: read one value of PAYLOAD bytes, write a new one
// (every write differs from the one before, so each one must reach the disk), or write the value
// that is already there (same).
//
//   configsrvc_kv_client --target service|kv [--socket PATH] --op read|write|same --clients N
//                        --seconds S --payload B
//
// The service is found through $MSGPASS_DIR. Prints "RATE FAILURES": requests answered per
// second by all clients together, and how many failed or answered something else than expected.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"

namespace {

using Clock = std::chrono::steady_clock;
using configclient::ConfigSession;

constexpr int kConnectMs = 5000;
constexpr int kAnswerMs = 10000;
constexpr char kKey[] = "location";

// system/location: a string variable that any admin may write.
void setLocation(ConfigIF::Inst* instance) {
    for (const char* name : {"system", "location"}) {
        ConfigIF::Node* node = instance->add_node();
        node->set_name(name);
        node->set_instance(0);
    }
}

struct Settings {
    std::string target;
    std::string socket;
    bool writes = false;
    bool same = false;  // every write stores the value already there
    int clients = 1;
    double seconds = 1;
    size_t payload = 32;
};

struct Tally {
    long answered = 0;
    long failed = 0;
};

// A value of exactly `bytes` bytes that names the client and the request.
std::string valueOf(int client, long i, size_t bytes) {
    std::string value = "c" + std::to_string(client) + "-" + std::to_string(i) + "-";
    value.resize(bytes, 'x');
    return value;
}

// One process's connection to the key-value server, one command at a time.
class KvConnection {
  public:
    ~KvConnection() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    bool connect(const std::string& path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        return fd_ >= 0 &&
               ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    // Sends the command made of `words` and returns its reply, whole; "" when that failed.
    std::string ask(const std::vector<std::string>& words) {
        std::string command = "*" + std::to_string(words.size()) + "\r\n";
        for (const std::string& word : words) {
            command += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
        }
        if (write(fd_, command.data(), command.size()) != static_cast<ssize_t>(command.size())) {
            return "";
        }
        return reply();
    }

  private:
    // A simple string ("+OK\r\n"), an error, or a bulk string ("$N\r\n" N bytes "\r\n").
    std::string reply() {
        std::string got;
        size_t wanted = 0;
        char buffer[8192];
        for (;;) {
            const size_t end = got.find("\r\n");
            if (end != std::string::npos && wanted == 0) {
                wanted = got[0] == '$' && got[1] != '-'
                             ? end + 2 + std::strtoul(got.c_str() + 1, nullptr, 10) + 2
                             : end + 2;
            }
            if (wanted != 0 && got.size() >= wanted) {
                return got;
            }
            const ssize_t bytes = read(fd_, buffer, sizeof buffer);
            if (bytes <= 0) {
                return "";
            }
            got.append(buffer, static_cast<size_t>(bytes));
        }
    }

    int fd_ = -1;
};

// What one request of client `client` must do; runs in that client's process.
class Client {
  public:
    Client(const Settings& settings, int client) : settings_(settings), client_(client) {}

    bool connect() {
        if (settings_.target == "kv") {
            return kv_.connect(settings_.socket);
        }
        read_.set_name("kv-bench");
        read_.set_role(CommonIF::kUser);
        setLocation(read_.mutable_instance());
        write_.set_name("kv-bench");
        write_.set_role(CommonIF::kAdmin);
        setLocation(write_.mutable_instance_val()->mutable_instance());
        write_.mutable_instance_val()->add_value();
        return session_.connect("kv-bench-" + std::to_string(getpid()), kConnectMs) ==
               ConfigSession::kOk;
    }

    bool writeOnce(const std::string& value) {
        if (settings_.target == "kv") {
            return kv_.ask({"SET", kKey, value}) == "+OK\r\n";
        }
        *write_.mutable_instance_val()->mutable_value(0) = value;
        return session_.write(write_, &written_, kAnswerMs) == ConfigSession::kOk &&
               written_.ret_message().error() == CommonIF::kErrNoError;
    }

    bool readOnce() {
        if (settings_.target == "kv") {
            const std::string got = kv_.ask({"GET", kKey});
            return got.size() == header_.size() + settings_.payload + 2 &&
                   got.compare(0, header_.size(), header_) == 0;
        }
        return session_.read(read_, &answer_, kAnswerMs) == ConfigSession::kOk &&
               answer_.error() == CommonIF::kErrNoError && answer_.value_size() == 1 &&
               answer_.value(0).size() == settings_.payload;
    }

    Tally run(Clock::time_point until) {
        Tally tally;
        for (long i = 0; Clock::now() < until; ++i) {
            const bool ok = settings_.writes
                                ? writeOnce(settings_.same ? valueOf(0, 0, settings_.payload)
                                                           : valueOf(client_, i, settings_.payload))
                                : readOnce();
            ++(ok ? tally.answered : tally.failed);
        }
        return tally;
    }

  private:
    const Settings& settings_;
    int client_;
    KvConnection kv_;
    ConfigSession session_;
    // Requests and answers are kept from one request to the next, so that encoding and parsing
    // reuse their parts; a write changes only its value.
    ConfigIF::ReadReq read_;
    ConfigIF::ReadRsp answer_;
    ConfigIF::WriteReq write_;
    ConfigIF::WriteRsp written_;
    const std::string header_ = "$" + std::to_string(settings_.payload) + "\r\n";
};

bool parse(int argc, char** argv, Settings* settings) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = argv[i + 1];
        if (option == "--target") {
            settings->target = value;
        } else if (option == "--socket") {
            settings->socket = value;
        } else if (option == "--op") {
            settings->writes = std::strcmp(value, "write") == 0 || std::strcmp(value, "same") == 0;
            settings->same = std::strcmp(value, "same") == 0;
        } else if (option == "--clients") {
            settings->clients = std::atoi(value);
        } else if (option == "--seconds") {
            settings->seconds = std::atof(value);
        } else if (option == "--payload") {
            settings->payload = static_cast<size_t>(std::atol(value));
        } else {
            return false;
        }
    }
    return (settings->target == "service" || settings->target == "kv") && settings->clients > 0 &&
           settings->seconds > 0 && settings->payload >= 16;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (!parse(argc, argv, &settings)) {
        std::fprintf(stderr,
                     "usage: configsrvc_kv_client --target service|kv [--socket PATH] "
                     "--op read|write|same --clients N --seconds S --payload B (B >= 16)\n");
        return 2;
    }
    {
        // The value every read finds, of the payload's size.
        Client seed(settings, -1);
        if (!seed.connect() || !seed.writeOnce(valueOf(0, 0, settings.payload))) {
            std::fprintf(stderr, "cannot reach the %s\n", settings.target.c_str());
            return 1;
        }
    }
    int ready[2], go[2], results[2];
    if (pipe(ready) != 0 || pipe(go) != 0 || pipe(results) != 0) {
        return 1;
    }
    for (int c = 0; c < settings.clients; ++c) {
        if (fork() == 0) {
            Client client(settings, c);
            const bool connected = client.connect();
            char byte = connected ? 1 : 0;
            (void)!write(ready[1], &byte, 1);
            (void)!read(go[0], &byte, 1);
            const auto length = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(settings.seconds));
            const Tally tally = connected ? client.run(Clock::now() + length) : Tally{0, 1};
            (void)!write(results[1], &tally, sizeof tally);
            _exit(0);
        }
    }
    long failed = 0;
    for (int c = 0; c < settings.clients; ++c) {
        char byte = 0;
        failed += read(ready[0], &byte, 1) == 1 && byte == 1 ? 0 : 1;
    }
    const auto start = Clock::now();
    const std::string bytes(static_cast<size_t>(settings.clients), 'g');
    (void)!write(go[1], bytes.data(), bytes.size());
    long answered = 0;
    for (int c = 0; c < settings.clients; ++c) {
        Tally tally;
        if (read(results[0], &tally, sizeof tally) != sizeof tally) {
            ++failed;
            continue;
        }
        answered += tally.answered;
        failed += tally.failed;
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    while (wait(nullptr) > 0) {
    }
    std::printf("%.0f %ld\n", static_cast<double>(answered) / elapsed, failed);
    return failed == 0 ? 0 : 1;
}
