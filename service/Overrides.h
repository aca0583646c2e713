// Overrides: how the records a client stored change what the model declares.
//
// Three things can be changed at run time, each durable and each undone by a reset:
//   - attributes of a variable (all its instances) or of a node: the settable ones are listed
//     in kSettableAttributes and spelled as in a model file;
//   - the options of one option variable instance, with the index of its default;
//   - the read and write level of one variable instance.
// Every function here is pure: it reads records and definitions and never stores anything.
#ifndef CONFIGSRVC_OVERRIDES_H
#define CONFIGSRVC_OVERRIDES_H

#include <string>
#include <vector>

#include "DeviceModel.h"
#include "Records.h"

namespace configsrvc {

// The attributes SetAttributeReq may change: "description" on nodes and variables; "min" and
// "max" on integer variables, "max-length" on string variables, "min-count" and "max-count" on
// list variables, "reboot" on every variable, each as the model file spells it.
constexpr size_t kMaxDescriptionBytes = 1024;

// Applies an attribute record (name, value, name, value, ...) to *variable, or to a node when
// `variable` is null. False with a reason when an attribute is not settable there, a value does
// not parse or is out of range, or the bounds cross. Whether the defaults still fit is
// defaultsFit()'s to say.
bool applyAttributes(const std::vector<std::string>& pairs, VariableDef* variable,
                     std::string* reason);

// Whether the defaults of `variable` fit it, else the reason.
bool defaultsFit(const VariableDef& variable, std::string* reason);

// Applies an options record (default index, options...) to an option variable. False with a
// reason when the variable has no options, the list is empty, too long, holds an empty, overlong,
// non-text or repeated option, or the index is outside it. A single variable's default becomes
// the option at the index; a list variable keeps its defaults (see defaultsFit()).
bool applyOptions(const std::vector<std::string>& record, VariableDef* variable,
                  std::string* reason);

// Applies a levels record (read role name, write role name; "" keeps the level) to *variable.
bool applyLevels(const std::vector<std::string>& record, VariableDef* variable,
                 std::string* reason);

// Checks a change to be stored against the model and the records it joins: a value against
// its variable as overridden, an override against the model. Canonicalises the values of a
// value change. Resets are always fine. False with a reason a person can act on.
bool checkRecord(const DeviceModel& model, const Records& records, StoredChange* change,
                 std::string* reason);
// The same for a value change whose variable, as overridden, the caller has found already.
bool canonicalValues(const VariableDef& variable, StoredChange* change, std::string* reason);

// The record of a detached component.
constexpr char kDetached[] = "detached";

// The first of `components` (paths of component nodes) that `records` say is detached, or null.
const std::string* detachedOf(const Records& records, const std::vector<std::string>& components);

// The definition that holds for an instance now: the model's with its variable's attributes and
// the instance's options and levels from `records`. Returns the model's own definition when
// nothing overrides it, else fills *scratch and returns it. Records were checked when they were
// stored, so one that no longer applies is skipped.
const VariableDef& effectiveVariable(const Records& records, const ResolvedVariable& found,
                                     VariableDef* scratch);

// The description of a node now.
std::string effectiveDescription(const Records& records, const NodeDef& node);

// The records of options and levels, as applyOptions() and applyLevels() read them.
std::vector<std::string> optionsRecord(int defaultIndex, const std::vector<std::string>& options);
std::vector<std::string> levelsRecord(const CommonIF::eSecurityRole* read,
                                      const CommonIF::eSecurityRole* write);

// `pairs` with every pair of `update` set in it: a name already there takes the new value, a
// new name is added at the end.
std::vector<std::string> mergeAttributes(const std::vector<std::string>& pairs,
                                         const std::vector<std::string>& update);

}  // namespace configsrvc

#endif  // CONFIGSRVC_OVERRIDES_H
