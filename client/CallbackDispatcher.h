// CallbackDispatcher: the client's side of callbacks and notifications.
//
// A program registers callbacks with its session (ConfigSession::registerClientCallback) and
// then lets a dispatcher handle what the service sends on that session: it answers the callback
// requests (validators' DynamicValidateReq, appliers' OnChangeReq) with what the handler says,
// in the order they came, and hands every notification to the handler. The program calls
// dispatch() from its own thread, for instance when pollFd() turns readable in its poll loop;
// nothing happens behind its back.
//
// Watching without a gap: resume() asks the service for commit marks. After the notifications
// of every commit up to a number, the handler's committed() is called with it; a program that
// must not lose or repeat a change across a crash records that number together with what it did
// with the notifications before it. After a reconnect (a new session), resume() with that number
// and then registering the callbacks again has the service send every notification after it;
// when the service no longer has them all, the handler's resyncNeeded() says so instead, and the
// program reads the state afresh. Resume before registering: what a registration was sent before
// the resume would come again.
//
// Calls made on the session while callback requests wait (a validator that reads, say) are
// fine: other messages are kept for dispatch(), in order. A validator must not change what it is
// asked about: that change is refused at once with kErrBadState.
//
// Header-only, so that the message classes are compiled into the program that uses them (see
// client/CMakeLists.txt). Threads: the session's (one at a time).
#ifndef CLIENT_CALLBACKDISPATCHER_H
#define CLIENT_CALLBACKDISPATCHER_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include "Common/protobuf/v3/configservice.pb.h"
#include "Common/protobuf/v3/configwatch.pb.h"
#include "ConfigSession.h"

namespace configclient {

// What a program does when the service calls on it. Every method has a default: validators
// allow, appliers succeed, notifications are ignored.
class CallbackHandler {
  public:
    virtual ~CallbackHandler() = default;

    // A change is about to be stored: kErrNoError lets it go ahead; any other error refuses it,
    // and *message (may stay empty) reaches the client that asked for it.
    virtual CommonIF::eErrorType validate(const ConfigIF::DynamicValidateReq& request,
                                          std::string* message) {
        (void)request;
        (void)message;
        return CommonIF::kErrNoError;
    }
    // A change was stored: kErrNoError once it is applied, else an error and *message for the
    // client that made it (the change stays stored); *reboot when it takes effect only then.
    virtual CommonIF::eErrorType apply(const ConfigIF::OnChangeReq& request, bool* reboot,
                                       std::string* message) {
        (void)request;
        (void)reboot;
        (void)message;
        return CommonIF::kErrNoError;
    }
    virtual void configChanged(const ConfigIF::ConfigChangedNtfy&) {}
    virtual void attributeChanged(const ConfigIF::AttributeChangedNtfy&) {}
    virtual void optionsChanged(const ConfigIF::OptionsChangedNtfy&) {}
    virtual void accessLevelChanged(const ConfigIF::AccessLevelChangedNtfy&) {}
    virtual void submitted(const ConfigIF::SubmitNtfy&) {}
    // Every notification of the commits up to `sequence` has been handed over (after resume()).
    virtual void committed(uint64_t sequence) { (void)sequence; }
    // Notifications after the resume point were lost for good: read the state again. Those of
    // the commits after `sequence` will follow.
    virtual void resyncNeeded(uint64_t oldestKept, uint64_t sequence) {
        (void)oldestKept;
        (void)sequence;
    }
};

class CallbackDispatcher {
  public:
    // `session` (connected) and `handler` must outlive the dispatcher.
    CallbackDispatcher(ConfigSession* session, CallbackHandler* handler)
        : session_(session), handler_(handler) {}
    virtual ~CallbackDispatcher() = default;

    // Asks for commit marks from now on and, with `afterSequence` (may be null), for the
    // notifications of every commit after it that this session's callbacks cover. *error is the
    // service's answer, *sequence its latest commit then.
    ConfigSession::Status resume(const std::string& name, CommonIF::eSecurityRole role,
                                 const uint64_t* afterSequence, int timeoutMs,
                                 CommonIF::eErrorType* error, uint64_t* sequence) {
        ConfigWatch::WatchResumeReq request;
        request.set_name(name);
        request.set_role(role);
        if (afterSequence != nullptr) {
            request.set_after_sequence(*afterSequence);
        }
        ConfigWatch::WatchResumeRsp response;
        const ConfigSession::Status status =
            session_->call(ConfigProtocol::kWatchResumeReqMsgId, request,
                           ConfigProtocol::kWatchResumeRspMsgId, &response, timeoutMs);
        if (status == ConfigSession::kOk) {
            *error = response.error();
            *sequence = response.sequence();
        }
        return status;
    }

    // Readable when dispatch() has something to do; -1 when the session is not connected.
    int pollFd() const { return MSG_GetPollFd(session_->name().c_str()); }

    // Handles every message waiting, waiting up to `timeoutMs` for the first (0: only what is
    // there; negative: until one comes). The number handled, or -1 when none came and the
    // connection to the service is gone.
    int dispatch(int timeoutMs) {
        const auto start = std::chrono::steady_clock::now();
        int handled = 0;
        for (;;) {
            // In slices: a receive of any message does not end when the service goes away.
            const long long waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - start)
                                         .count();
            const long long left = timeoutMs < 0 ? kSliceMs : std::max(0LL, timeoutMs - waited);
            MSG_Msg* message =
                MSG_RecvAny(session_->name().c_str(),
                            handled > 0 ? 0 : static_cast<int>(std::min(left, kSliceMs)));
            if (message != nullptr) {
                handle(message);
                MSG_ReleaseMsg(message);
                ++handled;
                continue;
            }
            if (handled > 0) {
                return handled;
            }
            if (!stillConnected()) {
                return -1;
            }
            if (timeoutMs >= 0 && left <= kSliceMs) {
                return 0;
            }
        }
    }

    // The commit number of the last mark handed over; 0 before the first.
    uint64_t lastCommit() const { return lastCommit_; }

  private:
    static constexpr long long kSliceMs = 200;

    template <typename Message>
    static bool parse(MSG_Msg* handle, Message* message) {
        return ConfigProtocol::decodeMessage(handle, message);
    }

    // Whether the connection is still open: the library notes a close as it receives.
    bool stillConnected() const {
        size_t queued = 0;
        return MSG_GetQueuedBytes(session_->name().c_str(), session_->address(), &queued) == MSG_OK;
    }

    void answer(uint32_t msgId, CommonIF::eErrorType error, bool reboot, const std::string& text) {
        ConfigIF::DynamicValidateRsp response;  // the same fields as OnChangeRsp
        response.mutable_ret_message()->set_error(error);
        if (reboot) {
            response.mutable_ret_message()->set_reboot_required(true);
        }
        if (!text.empty()) {
            response.mutable_ret_message()->add_error_message(text);
        }
        session_->sendRaw(msgId, response.SerializeAsString());
    }

    void handle(MSG_Msg* message) {
        switch (MSG_GetMsgId(message)) {
            case ConfigProtocol::kDynamicValidateReqMsgId: {
                ConfigIF::DynamicValidateReq request;
                std::string text;
                const CommonIF::eErrorType error = parse(message, &request)
                                                       ? handler_->validate(request, &text)
                                                       : CommonIF::kErrBadParameter;
                answer(ConfigProtocol::kDynamicValidateRspMsgId, error, false, text);
                return;
            }
            case ConfigProtocol::kOnChangeReqMsgId: {
                ConfigIF::OnChangeReq request;
                std::string text;
                bool reboot = false;
                const CommonIF::eErrorType error = parse(message, &request)
                                                       ? handler_->apply(request, &reboot, &text)
                                                       : CommonIF::kErrBadParameter;
                answer(ConfigProtocol::kOnChangeRspMsgId, error, reboot, text);
                return;
            }
            default:
                notify(message);
        }
    }

    void notify(MSG_Msg* message) {
        switch (MSG_GetMsgId(message)) {
            case ConfigProtocol::kConfigChangedNtfyMsgId:
                deliver<ConfigIF::ConfigChangedNtfy>(message, &CallbackHandler::configChanged);
                return;
            case ConfigProtocol::kAttributeChangedNtfyMsgId:
                deliver<ConfigIF::AttributeChangedNtfy>(message,
                                                        &CallbackHandler::attributeChanged);
                return;
            case ConfigProtocol::kOptionsChangedNtfyMsgId:
                deliver<ConfigIF::OptionsChangedNtfy>(message, &CallbackHandler::optionsChanged);
                return;
            case ConfigProtocol::kAccessLevelChangedNtfyMsgId:
                deliver<ConfigIF::AccessLevelChangedNtfy>(message,
                                                          &CallbackHandler::accessLevelChanged);
                return;
            case ConfigProtocol::kSubmitNtfyMsgId:
                deliver<ConfigIF::SubmitNtfy>(message, &CallbackHandler::submitted);
                return;
            case ConfigProtocol::kCommitMarkNtfyMsgId: {
                ConfigWatch::CommitMarkNtfy mark;
                if (parse(message, &mark)) {
                    lastCommit_ = mark.sequence();
                    handler_->committed(mark.sequence());
                }
                return;
            }
            case ConfigProtocol::kResyncNtfyMsgId: {
                ConfigWatch::ResyncNtfy resync;
                if (parse(message, &resync)) {
                    handler_->resyncNeeded(resync.oldest_sequence(), resync.sequence());
                }
                return;
            }
            default:
                return;  // an answer that came after its call gave up, or something unknown
        }
    }

    template <typename Notice>
    void deliver(MSG_Msg* message, void (CallbackHandler::*method)(const Notice&)) {
        Notice notice;
        if (parse(message, &notice)) {
            (handler_->*method)(notice);
        }
    }

    ConfigSession* session_;
    CallbackHandler* handler_;
    uint64_t lastCommit_ = 0;
};

}  // namespace configclient

#endif  // CLIENT_CALLBACKDISPATCHER_H
