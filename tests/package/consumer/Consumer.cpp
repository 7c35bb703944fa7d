// Someone else's program: each header reached the two ways it is offered.
#include <KVStuff/KVFormat.h>
#include <StringExtensions.h>

#include <cstdio>

int main() {
    const QString line = kvFormat("%@ %d %02X|%@", QStringLiteral("Product"), 2, 10u,
                                  StringExtensions::stringByTrimmingWhitespace("  trimmed \t"));
    std::printf("%s|%s\n", qPrintable(line), qPrintable(StringExtensions::MD5String("abc")));
}
