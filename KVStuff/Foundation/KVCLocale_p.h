// Numbers in formatted texts, defaults and property lists use a point,
// whatever the locale the application object adopted from the user (German
// would print and read "2,5").
#pragma once

#include <clocale>
#if __has_include(<xlocale.h>)
#include <xlocale.h>
#endif

// Puts the calling thread into the "C" locale while it lives; other threads
// keep theirs.
class KVCLocaleScope {
public:
    KVCLocaleScope() : m_previous(uselocale(cLocale())) {}
    ~KVCLocaleScope() { uselocale(m_previous); }
    KVCLocaleScope(const KVCLocaleScope &) = delete;
    KVCLocaleScope &operator=(const KVCLocaleScope &) = delete;

private:
    static locale_t cLocale() {
        static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
        return c;
    }
    locale_t m_previous;
};
