// Wrapped key rings: hostile texts, and sound ones with one change.
#include "platform/sdsecurity/wrapped_ring.h"

#include <algorithm>
#include <array>
#include <string>

#include "fuzz/support.h"
#include "platform/sdsecurity/recovery_code.h"

namespace {

using sd::security::SecretBytes;
using sd::security::Slot;
using sd::security::SlotKind;
using sd::security::WrappedRing;

constexpr std::array kKinds = {SlotKind::Recovery, SlotKind::Passphrase, SlotKind::Host, SlotKind::Keyring};

std::string textOf(const WrappedRing& wrapped) {
    const SecretBytes text = sd::security::formatWrappedRing(wrapped);
    return {text.begin(), text.end()};
}

void parse(const std::string& text) {
    std::string reason;
    const auto wrapped = sd::security::parseWrappedRing(text, reason);
    if (wrapped) {
        fuzz::expect(wrapped->find(SlotKind::Recovery) != nullptr, "there is a recovery slot");
        return fuzz::expect(textOf(*wrapped) == text, "a wrapped ring has one text");
    }
    fuzz::expect(!reason.empty() && reason.size() < 80, "a refusal has a short reason");
}

// The key of a slot, and of all, of what the bytes hold.
SecretBytes keyOf(const std::string& bytes, unsigned char which) {
    SecretBytes key(sd::security::kKeySize, which);
    std::copy_n(bytes.begin(), std::min(bytes.size(), key.size() - 1), key.begin());
    return key;
}

// A ring of the bytes, with slots of the kinds that the bits of the first tell.
WrappedRing ringOf(const std::string& bytes, const SecretBytes& master) {
    const auto kinds = static_cast<unsigned char>(bytes[0]);
    WrappedRing wrapped;
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (i > 0 && (kinds >> i & 1U) == 0) continue;
        Slot slot;
        slot.kind = kKinds[i];
        slot.made = 1 + kinds;
        slot.stretching.cost = 15 + kinds % 4U;
        slot.sealed = "sealed-" + std::to_string(kinds);
        sd::security::sealSlot(slot, keyOf(bytes, static_cast<unsigned char>(i)), master);
        wrapped.put(std::move(slot));
    }
    sd::security::sealRing(wrapped, master, {bytes.begin(), bytes.end()});
    return wrapped;
}

// What opens the text by any of its slots is the ring that went in.
void open(const std::string& text, const std::string& bytes, bool mustOpen) {
    std::string reason;
    const auto wrapped = sd::security::parseWrappedRing(text, reason);
    fuzz::expect(wrapped || !mustOpen, "a ring that was written can be read");
    if (!wrapped) return;
    for (const Slot& slot : wrapped->slots) {
        const auto master = sd::security::openSlot(slot, keyOf(bytes, static_cast<unsigned char>(slot.kind)));
        const auto ring = master ? sd::security::openRing(*wrapped, *master) : std::nullopt;
        fuzz::expect(ring.has_value() == mustOpen, "a ring opens by each of its slots, and a changed one by none");
        if (ring) fuzz::expect(std::string(ring->begin(), ring->end()) == bytes, "it is what it was");
    }
}

void typeCode(const std::string& typed) {
    std::string reason;
    const auto code = sd::security::recoveryCodeOf(typed, reason);
    fuzz::expect(code.has_value() == reason.empty(), "a refusal has a reason");
    if (!code) return;
    const auto again =
        sd::security::recoveryCodeOf({reinterpret_cast<const char*>(code->data()), code->size()}, reason);
    fuzz::expect(again == code, "a code is its own normal form");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string bytes = fuzz::text(data, size);
    parse(bytes);
    parse("sdsecurity-wrapped-keys 1\n" + bytes);
    typeCode(bytes);
    if (size < 4 || size > sd::security::kMaxRingText) return 0;
    const std::string content = bytes.substr(3);
    const SecretBytes master = keyOf(content, 0xff);
    std::string text = textOf(ringOf(content, master));
    open(text, content, true);
    const std::size_t at = (std::size_t{data[0]} << 8U | data[1]) % text.size();
    if (text[at] == static_cast<char>(data[2])) return 0;
    text[at] = static_cast<char>(data[2]);
    open(text, content, false);
    return 0;
}
