// Declaration layout the two schema files must have, written out independently of them:
// every message in file order with its fields in declaration order, and every enum in file
// order with its members. Message and enum names are full names; a field's type is the
// scalar name or the full name of its enum or message; the default is the text form of an
// explicit default, or nullptr when the field has none.
#ifndef TESTS_SCHEMA_EXPECTED_LAYOUT_H
#define TESTS_SCHEMA_EXPECTED_LAYOUT_H

#include <vector>

namespace schema_test {

enum Label { kOptional, kRequired, kRepeated };

struct FieldLayout {
    const char* name;
    int number;
    Label label;
    const char* type;
    const char* default_value;
};

struct MessageLayout {
    const char* full_name;
    std::vector<FieldLayout> fields;
};

struct EnumValueLayout {
    const char* name;
    int number;
};

struct EnumLayout {
    const char* full_name;
    std::vector<EnumValueLayout> values;
};

struct FileLayout {
    std::vector<MessageLayout> messages;
    std::vector<EnumLayout> enums;
};

inline const FileLayout kCommonLayout = {
    {
        {"CommonIF.KeyValuePair",
         {
             {"name", 1, kRequired, "string", nullptr},
             {"value", 2, kRequired, "string", nullptr},
         }},
        {"CommonIF.ProtocolVersion",
         {
             {"version", 10, kOptional, "string", "1.0"},
         }},
        {"CommonIF.VideoResolution",
         {
             {"width", 10, kRequired, "int32", nullptr},
             {"height", 20, kRequired, "int32", nullptr},
             {"refresh_rate", 30, kRequired, "int32", nullptr},
             {"is_interlaced", 40, kRequired, "bool", nullptr},
         }},
        {"CommonIF.SubsystemEventReq",
         {
             {"event", 10, kRequired, "CommonIF.eSubsystemEvent", nullptr},
         }},
        {"CommonIF.SubsystemEventRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"CommonIF.SubsystemStateChangedNtfy",
         {
             {"previous_state", 10, kRequired, "CommonIF.eSubsystemState", nullptr},
             {"new_state", 20, kRequired, "CommonIF.eSubsystemState", nullptr},
         }},
        {"CommonIF.SubsystemGetStateReq", {}},
        {"CommonIF.SubsystemGetStateRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"current_state", 20, kRequired, "CommonIF.eSubsystemState", nullptr},
         }},
        {"CommonIF.SubsystemInfoNtfy",
         {
             {"info_code", 10, kRequired, "CommonIF.eInfoType", nullptr},
         }},
        {"CommonIF.EndpointStateChangeNtfy",
         {
             {"name_space", 10, kRequired, "int32", nullptr},
             {"state", 20, kRequired, "CommonIF.EndpointState", nullptr},
         }},
        {"CommonIF.EndpointStateReq",
         {
             {"name_space", 10, kRequired, "int32", nullptr},
         }},
        {"CommonIF.EndpointStateRsp",
         {
             {"name_space", 10, kRequired, "int32", nullptr},
             {"state", 20, kRequired, "CommonIF.EndpointState", nullptr},
         }},
        {"CommonIF.DeviceId",
         {
             {"system", 10, kOptional, "int32", "0"},
             {"id", 20, kRequired, "int32", nullptr},
         }},
        {"CommonIF.AppParameter",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"value", 20, kRequired, "string", nullptr},
         }},
        {"CommonIF.Application",
         {
             {"apptype", 10, kRequired, "CommonIF.AppType", nullptr},
             {"appname", 20, kOptional, "string", nullptr},
             {"action", 30, kRequired, "CommonIF.AppAction", nullptr},
             {"display_context", 40, kOptional, "int32", "0"},
             {"parameters", 50, kRepeated, "CommonIF.AppParameter", nullptr},
         }},
        {"CommonIF.AppControlNtfy",
         {
             {"app", 10, kRequired, "CommonIF.Application", nullptr},
         }},
        {"CommonIF.AppControlCmdNtfy",
         {
             {"app", 10, kRequired, "CommonIF.Application", nullptr},
         }},
        {"CommonIF.AppControlReq",
         {
             {"app", 10, kRequired, "CommonIF.Application", nullptr},
         }},
        {"CommonIF.AppControlRsp",
         {
             {"err", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
    },
    {
        {"CommonIF.eErrorType",
         {{"kErrNoError", 0},
          {"kErrGenericError", -1},
          {"kErrOutOfMemory", -2},
          {"kErrBadParameter", -3},
          {"kErrBadState", -4},
          {"kErrOutOfResources", -5},
          {"kErrNotYetSupported", -6},
          {"kErrItemNotFound", -7},
          {"kErrNotAuthorized", -8},
          {"kErrAlreadyExists", -9},
          {"kErrTimeOut", -10},
          {"kErrPortLocked", -11},
          {"kNotEnabled", -12}}},
        {"CommonIF.eInfoType",
         {{"kInfoNone", -1}, {"kInfoContentFallback", -2}, {"kInfoContentUnsupported", -3}}},
        {"CommonIF.eSecurityRole",
         {{"kUser", 10}, {"kAdmin", 20}, {"kSystem", 30}, {"kProvisioning", 40}, {"kStartup", 50}}},
        {"CommonIF.eVideoRole", {{"ePeople", 0}, {"eContent", 1}}},
        {"CommonIF.eVideoQuality", {{"eMotion", 0}, {"eSharpness", 1}}},
        {"CommonIF.eVideoSignal",
         {{"eUnknown", 0},
          {"eComposite", 1},
          {"eSVideo", 2},
          {"eComponent", 3},
          {"eDVIAnalog", 4},
          {"eDVIDigital", 5},
          {"eHDMI", 6},
          {"eSDI", 7},
          {"eUSB", 8},
          {"eMR", 9}}},
        {"CommonIF.eAudioToneMode",
         {{"eToneLocalFar", 0},
          {"eToneLocalOnly", 1},
          {"eToneFarOnly", 2},
          {"eToneTestTone", 3},
          {"eNumAudioToneMode", 4}}},
        {"CommonIF.PeripheralCommand",
         {{"eDiscovery", 0},         {"eCallState", 1},         {"eSleepState", 2},
          {"eAudioMuteState", 3},    {"eVideoMuteState", 4},    {"eVideoStreamState", 5},
          {"ePowerFrequency", 6},    {"eAntiBanding", 7},       {"eTimeSync", 8},
          {"eBrightness", 9},        {"eCreateSupportPkg", 10}, {"ePanoPositionMode", 11},
          {"eHeadPositionMode", 12}, {"eHeadPositionTime", 13}, {"eConfigData", 14},
          {"eBackLightLevel", 15},   {"eReboot", 16},           {"eTimeFormat", 17},
          {"eVideoStandard", 18},    {"eSensorWakeMsg", 19},    {"eSensorWakeState", 20}}},
        {"CommonIF.ConfigKey",
         {{"eCFG_TimeZone", 0},
          {"eCFG_VpmPresenterAudienceViewDuration", 1},
          {"eCFG_VpmPresenterAudienceVideoInterval", 2},
          {"eCFG_VpmMinTalkerSpeakTime", 3},
          {"eCFG_VpmMinSilentTimeEstablishing", 4},
          {"eCFG_VpmMinPresenterSpeakTime", 5},
          {"eCFG_VpmMinLayoutHoldTime", 6}}},
        {"CommonIF.eSubsystemState",
         {{"kSubsystemStateUninitialized", 0},
          {"kSubsystemStateStopped", 1},
          {"kSubsystemStateStandby", 2},
          {"kSubsystemStateRunning", 3},
          {"kSubsystemStateSleeping", 4}}},
        {"CommonIF.eSubsystemEvent",
         {{"kSubsystemActivate", 1},
          {"kSubsystemStart", 2},
          {"kSubsystemStandby", 3},
          {"kSubsystemSleep", 4},
          {"kSubsystemWake", 5},
          {"kSubsystemShutDown", 6},
          {"kSubsystemStop", 7},
          {"kSubsystemTerminate", 8}}},
        {"CommonIF.EndpointState", {{"kEndpointDown", 1}, {"kEndpointUp", 2}}},
        {"CommonIF.AppType",
         {{"kAppTypeRDP", 0}, {"kAppTypeSlatewriter", 1}, {"kAppTypeEmptyHome", 2}}},
        {"CommonIF.AppAction",
         {{"kAppActionStop", 0},
          {"kAppActionStart", 1},
          {"kAppActionMinimize", 2},
          {"kAppActionRestore", 3},
          {"kAppActionMaximize", 4}}},
    },
};

inline const FileLayout kConfigServiceLayout = {
    {
        {"ConfigIF.Node",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"instance", 20, kRequired, "int32", nullptr},
         }},
        {"ConfigIF.Inst",
         {
             {"node", 10, kRepeated, "ConfigIF.Node", nullptr},
             {"scope", 20, kOptional, "ConfigIF.Scope", "kGlobal"},
         }},
        {"ConfigIF.InstValue",
         {
             {"instance", 10, kRequired, "ConfigIF.Inst", nullptr},
             {"value", 20, kRepeated, "string", nullptr},
         }},
        {"ConfigIF.AttrValuePair",
         {
             {"attribute", 10, kRequired, "string", nullptr},
             {"value", 20, kRepeated, "string", nullptr},
         }},
        {"ConfigIF.ReturnMessage",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"reboot_required", 20, kOptional, "bool", nullptr},
             {"cause_code", 30, kOptional, "int32", nullptr},
             {"error_message", 40, kRepeated, "string", nullptr},
             {"server_context", 50, kOptional, "string", nullptr},
             {"client_name", 60, kOptional, "string", nullptr},
         }},
        {"ConfigIF.ComponentChangeReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"component_name", 30, kRequired, "string", nullptr},
             {"detach", 40, kOptional, "bool", "false"},
         }},
        {"ConfigIF.ComponentChangeRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.CreateProfileReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"file_location", 30, kRequired, "string", nullptr},
             {"type", 40, kOptional, "ConfigIF.ProfileType", "kNormal"},
         }},
        {"ConfigIF.CreateProfileRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.ApplyProfileReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"file_location", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.ApplyProfileRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.ReadReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.ReadRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"value", 20, kRepeated, "string", nullptr},
             {"is_default", 30, kOptional, "bool", nullptr},
             {"instance", 40, kOptional, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.BatchReadReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRepeated, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.BatchReadRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"response", 20, kRepeated, "ConfigIF.ReadRsp", nullptr},
         }},
        {"ConfigIF.WriteReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance_val", 30, kRequired, "ConfigIF.InstValue", nullptr},
             {"override_security", 40, kOptional, "bool", "false"},
         }},
        {"ConfigIF.WriteRsp",
         {
             {"ret_message", 10, kRequired, "ConfigIF.ReturnMessage", nullptr},
         }},
        {"ConfigIF.ValidateReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance_val", 30, kRequired, "ConfigIF.InstValue", nullptr},
         }},
        {"ConfigIF.ValidateRsp",
         {
             {"ret_message", 10, kRequired, "ConfigIF.ReturnMessage", nullptr},
         }},
        {"ConfigIF.GetAttributeReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"node_name", 30, kRequired, "string", nullptr},
             {"attribute", 40, kOptional, "string", nullptr},
         }},
        {"ConfigIF.GetAttributeRsp",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"error", 20, kRequired, "CommonIF.eErrorType", nullptr},
             {"node_name", 30, kRequired, "string", nullptr},
             {"node_xml_attributes", 40, kOptional, "string", nullptr},
         }},
        {"ConfigIF.SetAttributeReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"node_name", 30, kRequired, "string", nullptr},
             {"node_xml_attributes", 40, kRequired, "string", nullptr},
         }},
        {"ConfigIF.SetAttributeRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.ReadAttributesReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.ReadAttributesRsp",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"error", 20, kRequired, "CommonIF.eErrorType", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
             {"value_pairs", 40, kRepeated, "ConfigIF.AttrValuePair", nullptr},
         }},
        {"ConfigIF.GetAttributeOptionsReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.GetAttributeOptionsRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"default_index", 20, kOptional, "int32", nullptr},
             {"node_options", 30, kRepeated, "string", nullptr},
         }},
        {"ConfigIF.GetDefaultOptionsReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"variable_name", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.GetDefaultOptionsRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"default_index", 20, kOptional, "int32", nullptr},
             {"node_options", 30, kRepeated, "string", nullptr},
         }},
        {"ConfigIF.SetAttributeOptionsReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
             {"default_index", 40, kOptional, "int32", "0"},
             {"node_options", 50, kRepeated, "string", nullptr},
         }},
        {"ConfigIF.SetAttributeOptionsRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.GetAccessLevelsReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.GetAccessLevelsRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"read_level", 20, kOptional, "CommonIF.eSecurityRole", nullptr},
             {"write_level", 30, kOptional, "CommonIF.eSecurityRole", nullptr},
         }},
        {"ConfigIF.SetAccessLevelsReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRepeated, "ConfigIF.Inst", nullptr},
             {"read_level", 40, kOptional, "CommonIF.eSecurityRole", nullptr},
             {"write_level", 50, kOptional, "CommonIF.eSecurityRole", nullptr},
         }},
        {"ConfigIF.AccessLevelErr",
         {
             {"instance", 10, kRequired, "ConfigIF.Inst", nullptr},
             {"error", 20, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.GetValueOptionsAccessReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.ValueOptionsAccess",
         {
             {"read_rsp", 20, kRequired, "ConfigIF.ReadRsp", nullptr},
             {"options_rsp", 30, kRequired, "ConfigIF.GetAttributeOptionsRsp", nullptr},
             {"access_level_rsp", 40, kRequired, "ConfigIF.GetAccessLevelsRsp", nullptr},
         }},
        {"ConfigIF.GetValueOptionsAccessRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"valoptacc", 20, kOptional, "ConfigIF.ValueOptionsAccess", nullptr},
         }},
        {"ConfigIF.BatchGetValueOptionsAccessReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRepeated, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.BatchGetValueOptionsAccessRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
             {"valoptacc", 20, kRepeated, "ConfigIF.ValueOptionsAccess", nullptr},
         }},
        {"ConfigIF.SetAccessLevelsRsp",
         {
             {"errors", 10, kRepeated, "ConfigIF.AccessLevelErr", nullptr},
         }},
        {"ConfigIF.ResetValueReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
         }},
        {"ConfigIF.ResetValueRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.ResetAttributeReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"node_name", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.ResetAttributeRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.SubmitReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kRequired, "ConfigIF.Inst", nullptr},
             {"type", 40, kRequired, "ConfigIF.SubmitType", nullptr},
         }},
        {"ConfigIF.SubmitRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.ResetNodeValueReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"node_name", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.ResetNodeValueRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.FlushAllCmd", {}},
        {"ConfigIF.ClearConfigCmd", {}},
        {"ConfigIF.RegisterClientCallbackReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kOptional, "int32", nullptr},
             {"node_name", 40, kOptional, "string", nullptr},
             {"type", 50, kRequired, "ConfigIF.CallbackType", nullptr},
             {"user_context", 60, kRequired, "string", nullptr},
             {"validate_skipname", 70, kOptional, "string", nullptr},
         }},
        {"ConfigIF.RegisterClientCallbackRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.UnregisterClientCallbackReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance", 30, kOptional, "int32", nullptr},
             {"node_name", 40, kRequired, "string", nullptr},
             {"type", 50, kRequired, "ConfigIF.CallbackType", nullptr},
             {"user_context", 60, kRequired, "string", nullptr},
         }},
        {"ConfigIF.UnregisterClientCallbackRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.UnregisterAllClientCallbacksReq",
         {
             {"name", 10, kRequired, "string", nullptr},
         }},
        {"ConfigIF.UnregisterAllClientCallbacksRsp",
         {
             {"error", 10, kRequired, "CommonIF.eErrorType", nullptr},
         }},
        {"ConfigIF.DynamicValidateReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance_val", 30, kRequired, "ConfigIF.InstValue", nullptr},
             {"user_context", 40, kRequired, "string", nullptr},
             {"server_context", 50, kRequired, "string", nullptr},
         }},
        {"ConfigIF.DynamicValidateRsp",
         {
             {"ret_message", 10, kRequired, "ConfigIF.ReturnMessage", nullptr},
         }},
        {"ConfigIF.OnChangeReq",
         {
             {"name", 10, kRequired, "string", nullptr},
             {"role", 20, kRequired, "CommonIF.eSecurityRole", nullptr},
             {"instance_val", 30, kRequired, "ConfigIF.InstValue", nullptr},
             {"user_context", 40, kRequired, "string", nullptr},
             {"server_context", 50, kRequired, "string", nullptr},
         }},
        {"ConfigIF.OnChangeRsp",
         {
             {"ret_message", 10, kRequired, "ConfigIF.ReturnMessage", nullptr},
         }},
        {"ConfigIF.ConfigChangedNtfy",
         {
             {"instance_val", 20, kRequired, "ConfigIF.InstValue", nullptr},
             {"user_context", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.AttributeChangedNtfy",
         {
             {"node_name", 10, kRequired, "string", nullptr},
             {"node_xml_attributes", 20, kRequired, "string", nullptr},
             {"user_context", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.OptionsChangedNtfy",
         {
             {"instance", 10, kRequired, "ConfigIF.Inst", nullptr},
             {"new_options", 20, kRepeated, "string", nullptr},
             {"user_context", 30, kRequired, "string", nullptr},
         }},
        {"ConfigIF.AccessLevelChangedNtfy",
         {
             {"instance", 10, kRequired, "ConfigIF.Inst", nullptr},
             {"read_role", 20, kOptional, "CommonIF.eSecurityRole", nullptr},
             {"write_role", 30, kOptional, "CommonIF.eSecurityRole", nullptr},
             {"user_context", 40, kRequired, "string", nullptr},
         }},
        {"ConfigIF.SubmitNtfy",
         {
             {"instance", 10, kRequired, "ConfigIF.Inst", nullptr},
             {"type", 20, kRequired, "ConfigIF.SubmitType", nullptr},
             {"user_context", 30, kRequired, "string", nullptr},
         }},
    },
    {
        {"ConfigIF.Scope", {{"kGlobal", 1}, {"kSinglecodec", 2}, {"kLocal", 3}}},
        {"ConfigIF.SubmitType", {{"kSubmitStart", 0}, {"kSubmitEnd", 1}}},
        {"ConfigIF.ProfileType", {{"kNormal", 0}}},
        {"ConfigIF.CallbackType",
         {{"kDynamicValidator", 1},
          {"kOnChange", 2},
          {"kChangeNotify", 3},
          {"kAttribute", 4},
          {"kOptions", 5},
          {"kSubmit", 6},
          {"kAccessLevel", 7}}},
    },
};

}  // namespace schema_test

#endif  // TESTS_SCHEMA_EXPECTED_LAYOUT_H
