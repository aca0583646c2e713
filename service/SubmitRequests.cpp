// Submissions: SubmitReq, and the writes and reads of a connection while its submission is open.
#include "ConfigService.h"
#include "Overrides.h"

namespace configsrvc {

using CommonIF::eErrorType;

Submission* ConfigService::openSubmission(const Sender& sender) {
    if (sender.submissions == nullptr || sender.connection == 0) {
        return nullptr;
    }
    return sender.submissions->find(sender.connection);
}

bool ConfigService::stageWrite(const Sender& sender, const StagedWrite& write,
                               ConfigIF::ReturnMessage* message, Answer* answer) const {
    Submission* submission = openSubmission(sender);
    if (submission == nullptr || !inScope(submission->scope, write.change.key)) {
        return false;
    }
    StagedWrite staged = write;
    staged.seenVersion = state_.valueVersion(write.change.key);
    if (!sender.submissions->stage(submission, std::move(staged))) {
        const std::string reason =
            "the submission under '" + submission->instance + "' holds as many changes as it may";
        message->set_error(CommonIF::kErrOutOfResources);
        message->add_error_message(reason);
        answer->refusals.push_back(reason);
    }
    return true;
}

eErrorType ConfigService::startSubmission(const ConfigIF::Inst& instance, const Sender& sender,
                                          std::string* reason) const {
    if (sender.submissions == nullptr || sender.connection == 0) {
        *reason = "a submission needs a connection of its own";
        return CommonIF::kErrBadState;
    }
    std::string scope;
    if (!model_.resolveScope(pathOf(instance), &scope)) {
        *reason = "no node or variable '" + describePath(instance) + "' in the model";
        return CommonIF::kErrItemNotFound;
    }
    if (const Submission* open = sender.submissions->find(sender.connection)) {
        *reason = "a submission under '" + open->instance + "' is already open";
        return CommonIF::kErrBadState;
    }
    sender.submissions->start(sender.connection, scope, describePath(instance));
    return CommonIF::kErrNoError;
}

bool ConfigService::stillAllowed(const StagedWrite& write, std::string* reason) const {
    const std::string& key = write.change.key;
    if (state_.valueVersion(key) != write.seenVersion) {
        *reason = "'" + key + "' was changed by another client meanwhile";
        return false;
    }
    ResolvedVariable found;
    if (!model_.resolveKey(key, &found)) {
        *reason = "'" + key + "' is no longer in the model";
        return false;
    }
    const Records& records = state_.accepted();
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(records, found, &scratch);
    if (!write.overriding && !reaches(write.role, variable.writeLevel, "write", key, reason)) {
        return false;
    }
    StoredChange again = write.change;
    return again.reset || checkRecord(model_, records, &again, reason);
}

eErrorType ConfigService::endSubmission(const ConfigIF::Inst& instance, const Sender& sender,
                                        Answer* answer, std::string* reason) const {
    Submission* open = openSubmission(sender);
    if (open == nullptr) {
        *reason = "no submission is open";
        return CommonIF::kErrBadState;
    }
    std::string scope;
    if (!model_.resolveScope(pathOf(instance), &scope) || scope != open->scope) {
        *reason = "the submission open is under '" + open->instance + "', not '" +
                  describePath(instance) + "'";
        return CommonIF::kErrBadState;
    }
    // All or nothing: one staged write that may no longer be stored as it was checked, and
    // none is.
    std::vector<StoredChange> changes;
    changes.reserve(open->staged.size());
    for (const auto& [key, write] : open->staged) {
        std::string why;
        if (!stillAllowed(write, &why)) {
            *reason = "submission under '" + open->instance + "' not applied: " + why;
            sender.submissions->end(sender.connection);
            return CommonIF::kErrBadState;
        }
        changes.push_back(write.change);
    }
    answer->changes = std::move(changes);
    answer->submitScope = instance.SerializePartialAsString();
    sender.submissions->end(sender.connection);
    return CommonIF::kErrNoError;
}

void ConfigService::submit(const ConfigIF::SubmitReq& request, const Sender& sender,
                           ConfigIF::SubmitRsp* response, Answer* answer) const {
    std::string reason;
    const eErrorType error = request.type() == ConfigIF::kSubmitStart
                                 ? startSubmission(request.instance(), sender, &reason)
                                 : endSubmission(request.instance(), sender, answer, &reason);
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

}  // namespace configsrvc
