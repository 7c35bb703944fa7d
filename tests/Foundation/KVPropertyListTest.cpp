// Property lists from hostile bundles: nesting deeper than any real list,
// in either form, and an Info.plist that is no regular file.
#include <gtest/gtest.h>

#include <QtEndian>

#include "FifoWatch.h"
#include "KVPropertyList.h"
#include "TestEnvironment.h"

namespace {

QByteArray nestedXml(int depth) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
           QByteArray("<array>").repeated(depth) + "<string>x</string><array/>" +
           QByteArray("</array>").repeated(depth) + "</plist>\n";
}

// Arrays of one element each, the innermost holding the string "x"; with
// `cycle` the innermost holds the outermost instead.
QByteArray nestedBinary(int depth, bool cycle = false) {
    QByteArray data("bplist00");
    QList<quint64> offsets;
    const auto reference = [](quint32 object) {
        QByteArray bytes(4, '\0');
        qToBigEndian(object, bytes.data());
        return bytes;
    };
    for (int i = 0; i < depth; ++i) {
        offsets << quint64(data.size());
        data += '\xA1' + reference(cycle && i + 1 == depth ? 0 : quint32(i + 1));
    }
    offsets << quint64(data.size());
    data += "\x51x";
    const quint64 table = quint64(data.size());
    for (const quint64 offset : offsets) {
        QByteArray bytes(8, '\0');
        qToBigEndian(offset, bytes.data());
        data += bytes;
    }
    QByteArray trailer(32, '\0');
    trailer[6] = 8;  // offset size
    trailer[7] = 4;  // reference size
    qToBigEndian(quint64(offsets.size()), trailer.data() + 8);
    qToBigEndian(quint64(0), trailer.data() + 16);
    qToBigEndian(table, trailer.data() + 24);
    return data + trailer;
}

// Refused before the parser sees them, which recurses once per level and
// would overflow the stack: 200,000 levels, in both forms, and a reference
// cycle. 256 levels read as before.
TEST(KVPropertyListTest, NestingDeeperThanAnyRealListIsRefusedBeforeParsing) {
    const std::pair<QByteArray, bool> cases[] = {
        {nestedXml(256), true},         {nestedBinary(256), true},  {nestedXml(257), false},
        {nestedBinary(257), false},     {nestedXml(200000), false}, {nestedBinary(200000), false},
        {nestedBinary(3, true), false},
    };
    for (const auto &[data, valid] : cases)
        EXPECT_EQ(KVPropertyList::fromData(data).isValid(), valid) << data.left(60).toHex().data();
    QVariant inner = KVPropertyList::fromData(nestedBinary(256));
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
