// Throughput of the text helpers on large input, each beside a baseline that
// does the plainest version of the same work:
//  - stringWithBestEncodingFromFile on a 100 MB Latin-1 and a 100 MB UTF-8
//    file, beside reading the file and converting it with iconv;
//  - reasonableTextFactor, stringByTrimmingWhitespace and
//    numberOfUnicodeCharacters on 10 MB strings, beside a plain QString walk
//    over the same units.
// Each figure is the median of several runs, in MB/s of input.
#include <iconv.h>

#include <QFile>
#include <QTemporaryDir>
#include <cstdio>
#include <functional>
#include <vector>

#include "BenchSupport.h"
#include "StringExtensions.h"

using namespace StringExtensions;

namespace {

constexpr qsizetype kFileBytes = 100 << 20;
constexpr qsizetype kStringUnits = 5 << 20;  // 10 MB of UTF-16

// Where results go so that the compiler keeps the work that makes them.
volatile qsizetype sink;

// MB/s of `bytes` for the median of `runs` timings of `work`.
double throughput(qsizetype bytes, int runs, const std::function<void()> &work) {
    std::vector<double> seconds;
    for (int i = 0; i < runs; ++i) {
        const int64_t start = nanoseconds();
        work();
        seconds.push_back(double(nanoseconds() - start) / 1e9);
    }
    return double(bytes) / (1 << 20) / median(seconds);
}

QByteArray repeatTo(const QByteArray &piece, qsizetype size) {
    QByteArray data;
    data.reserve(size);
    while (data.size() + piece.size() <= size) data += piece;
    return data;
}

// Reads the file and converts it to UTF-16 with iconv: the work of a decoder
// that is told the encoding.
void iconvDecode(const QString &path, const char *from) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return;
    QByteArray in = file.readAll();
    QByteArray out(in.size() * 2 + 16, Qt::Uninitialized);
    iconv_t cd = iconv_open("UTF-16LE", from);
    char *inp = in.data(), *outp = out.data();
    size_t inLeft = size_t(in.size()), outLeft = size_t(out.size());
    iconv(cd, &inp, &inLeft, &outp, &outLeft);
    iconv_close(cd);
}

void report(const char *what, double mine, double baseline, const char *against) {
    std::printf("%-44s %8.0f MB/s   %-16s %8.0f MB/s   ratio %.2f\n", what, mine, against, baseline,
                baseline / mine);
}

}  // namespace

int main() {
    QTemporaryDir dir;
    const QString latin1 = dir.filePath("latin1.txt"), utf8 = dir.filePath("utf8.txt");
    const QByteArray text =
        "Gr\xC3\xBC\xC3\x9F"
        "e aus K\xC3\xB6ln, \xC3\xA7"
        "a va? Voil\xC3\xA0 l'\xC3\xA9t\xC3\xA9.\n";
    {
        QFile f(utf8);
        f.open(QIODevice::WriteOnly);
        f.write(repeatTo(text, kFileBytes));
        QFile g(latin1);
        g.open(QIODevice::WriteOnly);
        // An odd size: a UTF-16 reading is out, as for most real files.
        g.write(repeatTo(QString::fromUtf8(text).toLatin1(), kFileBytes) + "!");
    }
    const int runs = 5;
    std::printf("%d runs each, median\n", runs);
    report("stringWithBestEncodingFromFile, 100 MB Latin-1",
           throughput(kFileBytes, runs, [&] { (void)stringWithBestEncodingFromFile(latin1); }),
           throughput(kFileBytes, runs, [&] { iconvDecode(latin1, "ISO-8859-1"); }), "iconv");
    report("stringWithBestEncodingFromFile, 100 MB UTF-8",
           throughput(kFileBytes, runs, [&] { (void)stringWithBestEncodingFromFile(utf8); }),
           throughput(kFileBytes, runs, [&] { iconvDecode(utf8, "UTF-8"); }), "iconv");

    const QString words = QString::fromUtf8(text) + QString::fromUtf8("\xF0\x9F\x91\x8D ");
    QString big = words.repeated(kStringUnits / words.size());
    big = " \t" + big + "\n ";
    const qsizetype bytes = big.size() * 2;

    // The factor looks at the first 1,000 units only: its rate is over those.
    const QString head = big.left(1000);
    const int calls = 20000;
    report("reasonableTextFactor, first 1,000 units",
           throughput(2000 * calls, runs,
                      [&] {
                          for (int i = 0; i < calls; ++i)
                              sink = qsizetype(reasonableTextFactor(big, "x"));
                      }),
           throughput(2000 * calls, runs,
                      [&] {
                          for (int i = 0; i < calls; ++i) {
                              int good = 0;
                              for (QChar c : head) good += c.isLetterOrNumber();
                              sink = good;
                          }
                      }),
           "QChar walk");
    report("stringByTrimmingWhitespace, 10 MB",
           throughput(bytes, runs, [&] { (void)stringByTrimmingWhitespace(big); }),
           throughput(bytes, runs, [&] { (void)big.trimmed(); }), "QString::trimmed");
    report("numberOfUnicodeCharacters, 10 MB",
           throughput(bytes, runs, [&] { sink = numberOfUnicodeCharacters(big); }),
           throughput(bytes, runs,
                      [&] {
                          qsizetype n = 0;
                          for (QChar c : big) n += !c.isLowSurrogate();
                          sink = n;
                      }),
           "QChar walk");
    return 0;
}
