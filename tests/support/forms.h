// Small things that tests of forms share: digits of bytes, XML from a text, peers that know less than this build,
// and how the handles of a writer and a reader may track.
#pragma once

#include <loom_runtime/runtime.h>
#include <loom_runtime/xml.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace trellis::testing {

/// Two digits per byte, with `between` between the bytes.
inline std::string hexadecimal(const void* bytes, size_t size, const char* between = "") {
    static constexpr char digits[] = "0123456789abcdef";
    const auto* each = static_cast<const uint8_t*>(bytes);
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        if (i != 0) text += between;
        text += digits[each[i] >> 4];
        text += digits[each[i] & 15];
    }
    return text;
}

/// A parsed text.
class xml_text {
  public:
    explicit xml_text(const std::string& text) : document_(loom_xml_parse(text.data(), text.size(), nullptr)) {
        if (document_ == nullptr) throw std::runtime_error("no XML: " + text.substr(0, 4000));
    }
    ~xml_text() { loom_xml_free(document_); }
    xml_text(const xml_text&) = delete;
    operator const loom_xml_document*() const { return document_; }

  private:
    loom_xml_document* document_;
};

/// Gives a handle a peer of this build that knows some types up to a variant only, as long as this lives.
class older_peer {
  public:
    older_peer(loom_handle* handle, const char* type, int32_t variant, const char* name = "older")
        : older_peer(handle, {type}, variant, name) {}
    older_peer(loom_handle* handle, std::initializer_list<const char*> types, int32_t variant,
               const char* name = "older")
        : handle_(handle), peer_(loom_peer_create_same_build(name)) {
        for (const char* type : types)
            loom_peer_limit(peer_, type, variant);
        loom_set_peer(handle_, peer_);
    }
    ~older_peer() {
        loom_set_peer(handle_, nullptr);
        loom_peer_release(peer_);
    }
    older_peer(const older_peer&) = delete;

  private:
    loom_handle* handle_;
    loom_peer* peer_;
};

struct tracking_pair {
    uint32_t writer, reader;
};
constexpr tracking_pair tracking_pairs[] = {{LOOM_TRACKING_NONE, LOOM_TRACKING_NONE},
                                            {LOOM_TRACKING_OFF, LOOM_TRACKING_ON},
                                            {LOOM_TRACKING_ON, LOOM_TRACKING_OFF},
                                            {LOOM_TRACKING_ON, LOOM_TRACKING_ON}};

} // namespace trellis::testing
