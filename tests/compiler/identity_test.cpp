// Identities of types: what changes a luid and a definition hash, and what does not.
#include "schemas.h"

#include "schema/compiler/md5.h"

namespace trellis::schema::testing {
namespace {

TEST(Md5, OfKnownTexts) {
    EXPECT_EQ(hex(md5("")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(hex(md5("message digest")), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(hex(md5("12345678901234567890123456789012345678901234567890123456789012345678901234567890")),
              "57edf4a22be3c955ac49da2e2107b67a");
    EXPECT_EQ(hex(md5(std::string(55, 'a'))), "ef1772b6dff9a122358552954ad0df65"); // the padding's edges
    EXPECT_EQ(hex(md5(std::string(56, 'a'))), "3b0c8ac703f828b04c6c197006d17218");
}

const std::string base =
    "bundle s\nrecord r {\n x: u_int8\n}\nenum e {\n A\n}\ntable t of r keyed by x\nmessage m carries r\n";
std::string replaced(std::string text, const std::string& what, const std::string& with) {
    return text.replace(text.find(what), what.size(), with);
}

TEST(Identity, GrowingATypeKeepsItsLuidAndChangesItsHash) {
    const auto old = model_of(base);
    const auto grown = model_of(
        replaced(replaced(base, "u_int8\n", "u_int8\nsince 1\n y: u_int8\n"), " A\n", " A\nsince 1\n B\n"));
    EXPECT_EQ(old->records[0]->luid_text, grown->records[0]->luid_text);
    EXPECT_NE(old->records[0]->definition_hash, grown->records[0]->definition_hash);
    EXPECT_EQ(old->enumerations[0]->luid_text, grown->enumerations[0]->luid_text);
    EXPECT_NE(old->enumerations[0]->definition_hash, grown->enumerations[0]->definition_hash);
    EXPECT_EQ(old->tables[0]->luid_text, grown->tables[0]->luid_text);
    EXPECT_EQ(old->messages[0]->luid_text, grown->messages[0]->luid_text);
}

TEST(Identity, AnotherDefinitionIsAnotherType) {
    const auto old = model_of(base);
    EXPECT_NE(old->records[0]->luid_text, model_of(replaced(base, "u_int8", "u_int16"))->records[0]->luid_text);
    EXPECT_NE(old->enumerations[0]->luid_text,
              model_of(replaced(base, " A", " A = 1"))->enumerations[0]->luid_text);
    EXPECT_NE(old->records[0]->luid_text,
              model_of(replaced(base, "bundle s", "bundle other"))->records[0]->luid_text);
    EXPECT_NE(old->messages[0]->luid_text, model_of(replaced(base, " carries r", ""))->messages[0]->luid_text);
    EXPECT_NE(old->tables[0]->luid_text,
              model_of(replaced(base, "keyed by x", "keyed by itself"))->tables[0]->luid_text);
}

TEST(Identity, CommentsChangeNothing) {
    const auto old = model_of(base);
    const auto told = model_of(replaced(base, "u_int8", "u_int8 /// a byte"));
    EXPECT_EQ(old->records[0]->definition_hash, told->records[0]->definition_hash);
}

TEST(Identity, ATableAndItsRowsAreTwoTypes) {
    const auto b = model_of(base);
    EXPECT_NE(b->tables[0]->luid_text, b->tables[0]->record_luid_text);
    EXPECT_NE(b->tables[0]->definition_hash, b->tables[0]->record_definition_hash);
}

} // namespace
} // namespace trellis::schema::testing
