// The wire contract between client and service: every name that travels, once. docs/protocol.md has the arguments.
#pragma once

namespace sd::protocol {

inline constexpr char kServiceName[] = "sdconfig";
inline constexpr int kCallTimeoutMs = 5000;

// The most list elements that a message announces; what is beyond is trimmed.
inline constexpr int kMaxElements = 122;

inline constexpr char kGetProperty[] = "GET_PROPERTY";
inline constexpr char kSetProperty[] = "SET_PROPERTY";
inline constexpr char kListProperty[] = "LST_PROPERTY";
inline constexpr char kDeleteProperty[] = "DEL_PROPERTY";
inline constexpr char kGetSecure[] = "GET_SECURE";
inline constexpr char kSetSecure[] = "SET_SECURE";
inline constexpr char kDeleteSecure[] = "DEL_SECURE";
inline constexpr char kGetConst[] = "GET_CONST";
inline constexpr char kSignRequest[] = "SIGN_REQUEST";
inline constexpr char kVerifySign[] = "VERIFY_SIGN";
inline constexpr char kRegisterListener[] = "REG_LISTENER";
inline constexpr char kUnregisterListener[] = "UNREG_LISTENER";
inline constexpr char kIsAlreadyListened[] = "ISALREADY_LISTHENED";
inline constexpr char kSetPolicyList[] = "SET_POLICYLIST";
inline constexpr char kSetPolicy[] = "SET_POLICY";
inline constexpr char kGetPolicy[] = "GET_POLICY";
inline constexpr char kDeletePolicy[] = "DELETE_POLICY";
inline constexpr char kIsStrongControl[] = "ISSTRONG_CONTROL";
inline constexpr char kRegisterListeners[] = "DM_REGISTER_LISTERNER";
inline constexpr char kListPolicies[] = "DM_LIST";
inline constexpr char kClearPolicies[] = "DM_CLEAR_ALL_KEYS";
inline constexpr char kGetPolicies[] = "DM_GET_POLICIES";

// Beside the 22, for the administrator's tools: the keys of the key ring. The client library calls none of them.
inline constexpr char kKeyRotate[] = "KEY_ROTATE";
inline constexpr char kKeyReseal[] = "KEY_RESEAL";
inline constexpr char kKeyEnable[] = "KEY_ENABLE";
inline constexpr char kKeyPrune[] = "KEY_PRUNE";

// The same: the policies of the machine.
inline constexpr char kPoliciesRead[] = "POLICIES_READ";
inline constexpr char kPoliciesStatus[] = "POLICIES_STATUS";
inline constexpr char kPoliciesGoverning[] = "POLICIES_GOVERNING";
inline constexpr char kPoliciesList[] = "POLICIES_LIST";

// The same: what clients listen to.
inline constexpr char kListenersList[] = "LISTENERS_LIST";

// Beside them, the slots of a wrapped key ring.
inline constexpr char kKeySlots[] = "KEY_SLOTS";
inline constexpr char kKeyProtect[] = "KEY_PROTECT";
inline constexpr char kKeyUnprotect[] = "KEY_UNPROTECT";
inline constexpr char kKeyUnlock[] = "KEY_UNLOCK";
inline constexpr char kKeyRecover[] = "KEY_RECOVER";

// The same: the trail.
inline constexpr char kTrailStatus[] = "TRAIL_STATUS";

// What the answers about keys begin with.
enum class KeyOutcome : int {
    Done,
    NoRing,        // not made yet
    RingUnusable,  // it can't be read, or, of a change, not be written
    LayerWithout,  // the security layer is a host's own, which has no operations for keys
    UnknownKey,    // no key's id begins so
    AmbiguousKey,  // several do
    KeySeals,      // what is asked for can't be done to the key that seals
    NotRead,       // a database
    NotSealed,     // a value that was opened
    NotStored,     // nothing of this step
    RingLocked,    // it is wrapped, and nothing at hand opens it now
    RingFull,      // it takes no key more
};

// Those about slots begin with what the security layer says (SDSecurity::SlotOutcome), or with one of these.
enum class SlotsTold : int {
    LayerWithout = 100,  // as above
    Busy,                // with another call about slots
};

inline constexpr int kAllSlots = -1;  // in the place of a slot's kind, to take the wrap off

// Who is asked for a slot's key may take 5 s, and several are.
inline constexpr int kSlotsTimeoutMs = 60000;

// Key and new effective value, for whoever asks.
inline constexpr char kSdconfigChanged[] = ".sdconfigChanged";
// Key, new effective value and strong control, for whoever asks.
inline constexpr char kPolicyChanged[] = ".DMChanged";
// Key, new value and, where asked for, strong control: for keys that some client listens to.
inline constexpr char kDmChanged[] = "DM_CHANGED";

inline constexpr int kMethodReply = 2;  // SDBusMessage::type() of an answer

}  // namespace sd::protocol
