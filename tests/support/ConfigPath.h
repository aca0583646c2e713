// Requests as tests write them: a variable instance named by a path of node and variable names
// separated by '/', each with an optional instance number after a blank, as a person types it:
// "audio/microphone 2/gain". A name without a number is sent with instance 0. Whole messages are
// written in protocol buffer text with shorthands (messageOf).
#ifndef TESTS_SUPPORT_CONFIGPATH_H
#define TESTS_SUPPORT_CONFIGPATH_H

#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "Common/protobuf/v3/configservice.pb.h"

namespace testsupport {

// The instance `path` names. A number that does not parse is sent as 0; an empty path has no
// node.
ConfigIF::Inst instOf(const std::string& path);

// A request of client name "test" claiming `role`.
ConfigIF::ReadReq readRequest(const std::string& path, CommonIF::eSecurityRole role);
ConfigIF::WriteReq writeRequest(const std::string& path, const std::vector<std::string>& values,
                                CommonIF::eSecurityRole role);
ConfigIF::SubmitReq submitRequest(const std::string& path, ConfigIF::SubmitType type,
                                  CommonIF::eSecurityRole role);

// `text` with its shorthands written out: "{{a/b 2}}" is the nodes of that path (instOf),
// "<<N: text>> " N copies of text; "-" alone is nothing.
std::string expandText(const std::string& text);

// A new message of the protocol's type `type` ("ReadReq") with the fields of `text` (shorthands
// expanded; required fields may be missing). Null, with a test failure, when there is no such
// type or the text does not parse.
std::unique_ptr<google::protobuf::Message> messageOf(const std::string& type,
                                                     const std::string& text);

// The request of type `type` ("Read" for a ReadReq) of client name "test" claiming the role
// named `role` ("-": a request without a role), its other fields in protocol buffer text
// (messageOf). Null, with a test failure, when it cannot be made.
std::unique_ptr<google::protobuf::Message> requestOf(const std::string& type,
                                                     const std::string& role,
                                                     const std::string& fields);

// Whether `answer` holds every field `expected` sets, a repeated field whole and in order; fields
// `expected` leaves unset are not compared. What differs goes to *differences.
bool holdsFields(const google::protobuf::Message& expected, const google::protobuf::Message& answer,
                 std::string* differences);

// The error a response carries: its field `error`, or its ret_message's (a test failure when it
// has neither).
CommonIF::eErrorType errorOf(const google::protobuf::Message& response);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_CONFIGPATH_H
