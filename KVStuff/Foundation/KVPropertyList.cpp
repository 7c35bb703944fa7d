#include "KVPropertyList.h"

#include <plist/plist.h>

#include <QDateTime>
#include <QSaveFile>
#include <QStringList>
#include <QTimeZone>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "KVCLocale_p.h"
#include "KVRegularFile.h"

namespace {

// Property-list dates count seconds from 2001-01-01 00:00:00 UTC.
const QDateTime &referenceDate() {
    static const QDateTime date(QDate(2001, 1, 1), QTime(0, 0), QTimeZone::utc());
    return date;
}

// Files larger than this are no information dictionary anyone wrote by hand
// or tool; refusing them keeps a hostile bundle from exhausting memory.
constexpr qint64 kMaximumFileSize = 64 * 1024 * 1024;

struct PlistDeleter {
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

QString takeString(char *text) {
    const QString s = QString::fromUtf8(text ? text : "");
    std::free(text);
    return s;
}

// libplist recurses once per level as it reads and frees a tree, so a
// deeply nested list would overflow the stack there, whatever is done with
// the tree afterwards. No real property list nests this deep.
constexpr int kMaximumDepth = 256;

bool isContainerTag(const QByteArray &data, qsizetype at) {
    for (const char *name : {"array", "dict"}) {
        const qsizetype length = qsizetype(std::strlen(name));
        if (data.mid(at, length) == name && at + length < data.size()) {
            const char next = data[at + length];
            if (next == '>' || next == '/' || std::isspace(uchar(next))) return true;
        }
    }
    return false;
}

// Counts open <array> and <dict> elements; comments, CDATA sections and
// declarations are skipped. Malformed text passes: the parser refuses it.
bool xmlNestsWithin(const QByteArray &data, int maximum) {
    int depth = 0;
    for (qsizetype at = data.indexOf('<'); at >= 0; at = data.indexOf('<', at)) {
        ++at;
        const auto skipTo = [&](const char *end) {
            const qsizetype found = data.indexOf(end, at);
            at = found < 0 ? data.size() : found;
        };
        if (data.mid(at, 3) == "!--") {
            skipTo("-->");
        } else if (data.mid(at, 8) == "![CDATA[") {
            skipTo("]]>");
        } else {
            const bool closing = at < data.size() && data[at] == '/';
            if (!isContainerTag(data, at + (closing ? 1 : 0))) continue;
            const qsizetype end = data.indexOf('>', at);
            if (end < 0) return true;
            if (closing) {
                --depth;
            } else if (data[end - 1] != '/' && ++depth > maximum) {
                return false;
            }
            at = end;
        }
    }
    return true;
}

// A binary list: objects reached through references from the root, each
// array, set or dictionary one level. Walked without recursion, each object
// once; a reference cycle counts as too deep.
class BinaryNesting {
public:
    explicit BinaryNesting(const QByteArray &data)
        : m_bytes(reinterpret_cast<const uchar *>(data.constData())), m_size(data.size()) {}

    bool within(int maximum) {
        if (m_size < 40) return true;
        const uchar *trailer = m_bytes + m_size - 32;
        m_offsetSize = trailer[6];
        m_refSize = trailer[7];
        quint64 root = 0;
        if (!number(m_size - 24, 8, &m_count) || !number(m_size - 16, 8, &root) ||
            !number(m_size - 8, 8, &m_table))
            return true;
        // Malformed lists are left to the parser, which refuses them.
        if (m_offsetSize < 1 || m_offsetSize > 8 || m_refSize < 1 || m_refSize > 8 ||
            m_count == 0 || m_count > quint64(m_size) || root >= m_count ||
            m_table >= quint64(m_size) || m_count > (quint64(m_size) - m_table) / m_offsetSize)
            return true;
        constexpr qint16 kUnknown = -1, kOpen = -2;
        std::vector<qint16> heights(m_count, kUnknown);
        struct Frame {
            quint64 object;
            std::vector<quint64> children;
            size_t next = 0;
            qint16 height = 0;
        };
        std::vector<Frame> stack;
        const auto open = [&](quint64 object) {
            heights[object] = kOpen;
            stack.push_back({object, children(object)});
        };
        open(root);
        while (!stack.empty()) {
            Frame &frame = stack.back();
            if (frame.next == frame.children.size()) {
                const qint16 height = frame.height;
                heights[frame.object] = height;
                stack.pop_back();
                if (!stack.empty())
                    stack.back().height = std::max<qint16>(stack.back().height, height + 1);
                continue;
            }
            const quint64 child = frame.children[frame.next++];
            if (child >= m_count || heights[child] == kOpen) return false;
            if (heights[child] >= 0) {
                frame.height = std::max<qint16>(frame.height, heights[child] + 1);
            } else if (int(stack.size()) > maximum) {
                return false;
            } else {
                open(child);
            }
        }
        return true;
    }

private:
    bool number(quint64 at, int width, quint64 *value) const {
        if (width < 1 || at > quint64(m_size) || quint64(width) > quint64(m_size) - at)
            return false;
        *value = 0;
        for (int i = 0; i < width; ++i) *value = (*value << 8) | m_bytes[at + quint64(i)];
        return true;
    }

    // The objects an array, set or dictionary refers to; none for others.
    std::vector<quint64> children(quint64 object) const {
        quint64 offset = 0;
        if (!number(m_table + object * m_offsetSize, m_offsetSize, &offset) ||
            offset >= quint64(m_size))
            return {};
        const uchar marker = m_bytes[offset];
        const int type = marker >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) return {};
        quint64 count = marker & 0xF;
        quint64 at = offset + 1;
        if (count == 0xF) {
            if (at >= quint64(m_size) || (m_bytes[at] >> 4) != 0x1) return {};
            const int width = 1 << (m_bytes[at] & 0x3);
            if (!number(at + 1, width, &count)) return {};
            at += 1 + quint64(width);
        }
        if (type == 0xD) count *= 2;
        if (count > quint64(m_size) / m_refSize) return {};
        std::vector<quint64> found;
        found.reserve(size_t(count));
        for (quint64 i = 0; i < count; ++i) {
            quint64 reference = 0;
            if (!number(at + i * m_refSize, m_refSize, &reference)) return {};
            found.push_back(reference);
        }
        return found;
    }

    const uchar *m_bytes;
    qsizetype m_size;
    int m_offsetSize = 0;
    int m_refSize = 0;
    quint64 m_count = 0;
    quint64 m_table = 0;
};

bool nestsWithin(const QByteArray &data, int maximum) {
    return data.startsWith("bplist00") ? BinaryNesting(data).within(maximum)
                                       : xmlNestsWithin(data, maximum);
}

QVariant toVariant(plist_t node, int depth) {
    if (!node || depth > kMaximumDepth) return {};
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return bool(value);
        }
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            return qlonglong(value);
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return value;
        }
        case PLIST_STRING: {
            char *text = nullptr;
            plist_get_string_val(node, &text);
            return takeString(text);
        }
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return referenceDate().addMSecs(qint64(sec) * 1000 + usec / 1000);
        }
        case PLIST_DATA: {
            char *bytes = nullptr;
            uint64_t length = 0;
            plist_get_data_val(node, &bytes, &length);
            const QByteArray data(bytes, qsizetype(length));
            std::free(bytes);
            return data;
        }
        case PLIST_ARRAY: {
            QVariantList list;
            const uint32_t count = plist_array_get_size(node);
            for (uint32_t i = 0; i < count; ++i)
                list << toVariant(plist_array_get_item(node, i), depth + 1);
            return list;
        }
        case PLIST_DICT: {
            QVariantMap map;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                char *key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!key) break;
                map.insert(takeString(key), toVariant(value, depth + 1));
            }
            std::free(it);
            return map;
        }
        case PLIST_UID: {
            uint64_t value = 0;
            plist_get_uid_val(node, &value);
            return qulonglong(value);
        }
        default:
            return {};
    }
}

plist_t fromVariant(const QVariant &v) {
    switch (v.typeId()) {
        case QMetaType::Bool:
            return plist_new_bool(v.toBool());
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::UInt:
        case QMetaType::ULongLong:
        case QMetaType::Long:
            return plist_new_uint(uint64_t(v.toLongLong()));
        case QMetaType::Double:
        case QMetaType::Float:
            return plist_new_real(v.toDouble());
        case QMetaType::QDateTime: {
            const qint64 ms = referenceDate().msecsTo(v.toDateTime());
            return plist_new_date(int32_t(ms / 1000), int32_t((ms % 1000) * 1000));
        }
        case QMetaType::QByteArray: {
            const QByteArray data = v.toByteArray();
            return plist_new_data(data.constData(), uint64_t(data.size()));
        }
        case QMetaType::QStringList:
        case QMetaType::QVariantList: {
            plist_t array = plist_new_array();
            for (const QVariant &item : v.toList())
                plist_array_append_item(array, fromVariant(item));
            return array;
        }
        case QMetaType::QVariantMap: {
            plist_t dict = plist_new_dict();
            const QVariantMap map = v.toMap();
            for (auto it = map.cbegin(); it != map.cend(); ++it)
                plist_dict_set_item(dict, it.key().toUtf8().constData(), fromVariant(it.value()));
            return dict;
        }
        default:
            return plist_new_string(v.toString().toUtf8().constData());
    }
}

}  // namespace

QVariant KVPropertyList::fromData(const QByteArray &data) {
    if (data.isEmpty() || data.size() > kMaximumFileSize || !nestsWithin(data, kMaximumDepth))
        return {};
    plist_t root = nullptr;
    // The XML reader takes <real> values with atof.
    const KVCLocaleScope cLocale;
    plist_from_memory(data.constData(), uint32_t(data.size()), &root);
    PlistPtr owner(root);
    return toVariant(root, 0);
}

QVariant KVPropertyList::fromFile(const QString &path) {
    const auto data = KVRegularFile::read(path, kMaximumFileSize);
    return data ? fromData(*data) : QVariant();
}

QByteArray KVPropertyList::toData(const QVariant &value, Format format) {
    PlistPtr root(fromVariant(value));
    char *bytes = nullptr;
    uint32_t length = 0;
    const KVCLocaleScope cLocale;
    if (format == Format::Xml) {
        plist_to_xml(root.get(), &bytes, &length);
    } else {
        plist_to_bin(root.get(), &bytes, &length);
    }
    const QByteArray data(bytes, qsizetype(length));
    std::free(bytes);
    return data;
}

bool KVPropertyList::writeFile(const QVariant &value, const QString &path, Format format) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return false;
    file.write(toData(value, format));
    return file.commit();
}
