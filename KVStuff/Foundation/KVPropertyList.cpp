#include "KVPropertyList.h"

#include <plist/plist.h>

#include <QDateTime>
#include <QFile>
#include <QSaveFile>
#include <QStringList>
#include <QTimeZone>
#include <cstdlib>
#include <memory>

#include "KVCLocale_p.h"

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

QVariant toVariant(plist_t node, int depth) {
    // Deeply nested input would otherwise recurse without bound.
    if (!node || depth > 256) return {};
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
    if (data.isEmpty() || data.size() > kMaximumFileSize) return {};
    plist_t root = nullptr;
    // The XML reader takes <real> values with atof.
    const KVCLocaleScope cLocale;
    plist_from_memory(data.constData(), uint32_t(data.size()), &root);
    PlistPtr owner(root);
    return toVariant(root, 0);
}

QVariant KVPropertyList::fromFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaximumFileSize) return {};
    return fromData(file.readAll());
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
