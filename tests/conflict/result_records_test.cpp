// Result records and result lists of both families: deep copies, ownership, order.
#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "foundation/raii.h"
#include "kova_test.h"

namespace {

using ResultRecordsTest = kova::test::RootTest;

std::vector<std::string> conf_names(const KVLIB_DLIST *list) {
    std::vector<std::string> out;
    for (const KVLIB_DLIST_NODE *n = list->pHead; n != nullptr; n = n->pNext) {
        const auto *r = static_cast<const KOVA_CONF_PORT_CONFLICT_RESULT *>(n->pData);
        out.push_back(std::to_string(r->port) + "/" + std::to_string(r->protocol) + " " +
                      (r->serviceName ? r->serviceName : "(null)") + " " + std::to_string(r->isConflict));
    }
    return out;
}

TEST_F(ResultRecordsTest, ConfRecordCopiesOwnTheirName) {
    PKOVA_CONF_PORT_CONFLICT_RESULT record = KOVAConfPortConflictResultAlloc();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->port, 0);
    EXPECT_EQ(record->serviceName, nullptr);
    EXPECT_EQ(record->isConflict, 0);

    PKOVA_CONF_PORT_CONFLICT_RESULT bare = KOVAConfPortConflictResultCopy(record);
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->serviceName, nullptr);
    KOVAConfPortConflictResultFree(bare);

    record->port = 5005;
    record->protocol = 1;
    record->isConflict = 1;
    record->serviceName = strdup("kova-webdav");
    PKOVA_CONF_PORT_CONFLICT_RESULT copy = KOVAConfPortConflictResultCopy(record);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->serviceName, record->serviceName);
    KOVAConfPortConflictResultFree(record);
    EXPECT_EQ(copy->port, 5005);
    EXPECT_EQ(copy->protocol, 1);
    EXPECT_EQ(copy->isConflict, 1);
    EXPECT_STREQ(copy->serviceName, "kova-webdav");
    KOVAConfPortConflictResultFree(copy);
    KOVAConfPortConflictResultFree(nullptr);
    EXPECT_TRUE(log().empty());
}

TEST_F(ResultRecordsTest, ConfListStoresCopiesInOrderAndCopiesDeeply) {
    kova::DListPtr list(KOVAConfPortConflictResultListAlloc());
    ASSERT_NE(list, nullptr);
    kova::DListPtr empty_copy(KOVAConfPortConflictResultListCopy(list.get()));
    ASSERT_NE(empty_copy, nullptr);
    EXPECT_EQ(empty_copy->pHead, nullptr);

    char name[] = "nfs";
    KOVA_CONF_PORT_CONFLICT_RESULT mine{2049, 2, name, 1};
    ASSERT_EQ(KVLIBCDListAppend(list.get(), &mine), 0);
    KOVA_CONF_PORT_CONFLICT_RESULT none{2049, 1, nullptr, 0};
    ASSERT_EQ(KVLIBCDListAppend(list.get(), &none), 0);
    name[0] = 'X';  // the list holds its own copy of the text
    EXPECT_EQ(conf_names(list.get()), (std::vector<std::string>{"2049/2 nfs 1", "2049/1 (null) 0"}));

    kova::DListPtr copy(KOVAConfPortConflictResultListCopy(list.get()));
    ASSERT_NE(copy, nullptr);
    const char *source_text = static_cast<KOVA_CONF_PORT_CONFLICT_RESULT *>(list->pHead->pData)->serviceName;
    const char *copy_text = static_cast<KOVA_CONF_PORT_CONFLICT_RESULT *>(copy->pHead->pData)->serviceName;
    EXPECT_NE(source_text, copy_text);
    KOVAConfPortConflictResultListFree(list.release());
    EXPECT_EQ(conf_names(copy.get()), (std::vector<std::string>{"2049/2 nfs 1", "2049/1 (null) 0"}));
    KOVAConfPortConflictResultListFree(nullptr);
    EXPECT_EQ(KOVAConfPortConflictResultListCopy(nullptr), nullptr);
}

TEST_F(ResultRecordsTest, RuntimeRecordsAndListsCopyAllFieldsAndTheProgram) {
    PKOVA_RUNTIME_PORT_CONFLICT_RESULT record = KOVARuntimePortConflictResultAlloc();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->program, nullptr);
    *record = {873, 1, 77, 10, strdup("/usr/sbin/rsyncd"), 1};

    kova::DListPtr list(KOVARuntimePortConflictResultListAlloc());
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(KVLIBCDListAppend(list.get(), record), 0);
    KOVARuntimePortConflictResultFree(record);  // the list's copy stays intact

    kova::DListPtr copy(KOVARuntimePortConflictResultListCopy(list.get()));
    ASSERT_NE(copy, nullptr);
    list.reset();
    ASSERT_NE(copy->pHead, nullptr);
    const auto *r = static_cast<const KOVA_RUNTIME_PORT_CONFLICT_RESULT *>(copy->pHead->pData);
    EXPECT_EQ(r->port, 873);
    EXPECT_EQ(r->protocol, 1);
    EXPECT_EQ(r->pid, 77u);
    EXPECT_EQ(r->state, 10u);
    EXPECT_STREQ(r->program, "/usr/sbin/rsyncd");
    EXPECT_EQ(r->isConflict, 1);
    EXPECT_EQ(copy->pHead->pNext, nullptr);

    KOVA_RUNTIME_PORT_CONFLICT_RESULT none{873, 2, 0, 0, nullptr, 0};
    PKOVA_RUNTIME_PORT_CONFLICT_RESULT bare = KOVARuntimePortConflictResultCopy(&none);
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->program, nullptr);
    KOVARuntimePortConflictResultFree(bare);
    KOVARuntimePortConflictResultListFree(nullptr);
}

}  // namespace
