// Property lists from hostile bundles: too deep, and an Info.plist that is no file.
#include <gtest/gtest.h>

#include "FifoWatch.h"
#include "KVPropertyList.h"
#include "TestEnvironment.h"

namespace {

QByteArray nestedXml(int depth) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
           QByteArray("<array>").repeated(depth) + "<string>x</string><array/>" +
           QByteArray("</array>").repeated(depth) + "</plist>\n";
}

// Arrays of one element each, the innermost holding the string "x".
QByteArray nested(int depth, KVPropertyList::Format format) {
    QVariant value = QString("x");
    for (int i = 0; i < depth; ++i) value = QVariantList{value};
    return KVPropertyList::toData(value, format);
}

// Refused before the (recursive) parser sees them: 257 levels in both forms, 200,000 in
// a 3 MB text; 256 levels are read.
TEST(KVPropertyListTest, NestingDeeperThanAnyRealListIsRefusedBeforeParsing) {
    using enum KVPropertyList::Format;
    const std::pair<QByteArray, bool> cases[] = {
        {nested(256, Xml), true},     {nested(256, Binary), true}, {nested(257, Xml), false},
        {nested(257, Binary), false}, {nestedXml(200000), false},
    };
    for (const auto &[data, valid] : cases)
        EXPECT_EQ(KVPropertyList::fromData(data).isValid(), valid) << data.left(60).toHex().data();
    QVariant inner = KVPropertyList::fromData(nested(256, Binary));
    for (int level = 0; level < 256; ++level) inner = inner.toList().value(0);
    EXPECT_EQ(inner, "x");
}

// An Info.plist that is a FIFO is no list: never opened, never waited on.
TEST(KVPropertyListTest, OnlyARegularFileIsRead) {
    const QString folder = TestEnvironment::makeTempDir("plist");
    FifoWatch fifo(folder + "/Info.plist");
    ASSERT_TRUE(fifo.made());
    EXPECT_FALSE(KVPropertyList::fromFile(folder + "/Info.plist").isValid());
    EXPECT_FALSE(KVPropertyList::fromFile("/dev/zero").isValid());
    EXPECT_FALSE(fifo.readerWaited());
}

}  // namespace
