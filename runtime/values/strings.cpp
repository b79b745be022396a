// The string types, the byte string and the opaque texts: exports. On the wire each is a u32 length and the bytes.
// What is held under AES is no secret to a document, which has to give it back, but no printed line shows it.
#include "runtime/values/exports.h"

using namespace loom;

EXPORT_COUNTED(loom_vstring, counted_kind<loom_vstring, &loom_vstring::text, content::text>)
EXPORT_COUNTED(nexa_bytestr, counted_kind<nexa_bytestr, &nexa_bytestr::bytes, content::octets>)
EXPORT_COUNTED(loom_aes_vstring, counted_kind<loom_aes_vstring, &loom_aes_vstring::text, content::secret>)
EXPORT_COUNTED(loom_aes_password_vstring,
               counted_kind<loom_aes_password_vstring, &loom_aes_password_vstring::text, content::secret>)
EXPORT_COUNTED(loom_username_vstring,
               counted_kind<loom_username_vstring, &loom_username_vstring::text, content::text>)

LOOM_EXPORT void loom_vstring_assign(loom_handle* handle, uint32_t domain, loom_vstring* value, const char* text,
                                     uint32_t length, uint32_t* err) {
    using kind = counted_kind<loom_vstring, &loom_vstring::text, content::text>;
    counted<kind>::assign_value({handle, domain, err}, value, text, length);
}

LOOM_EXPORT void nexa_bytestr_assign(loom_handle* handle, uint32_t domain, nexa_bytestr* value, const void* bytes,
                                     uint32_t length, uint32_t* err) {
    using kind = counted_kind<nexa_bytestr, &nexa_bytestr::bytes, content::octets>;
    counted<kind>::assign_value({handle, domain, err}, value, bytes, length);
}
