// train: installs the product with administrator rights for the installer,
// which starts it as "train SOURCE DESTINATION [WRAPPER]" through the
// system's elevation program and reads success from the exit status.
#include <sysexits.h>

#include <QFile>
#include <cstdio>

#include "InstallFunction.h"

int main(int argc, char **argv) {
    // Running as root, the tool takes nothing it was not built for: two or
    // three absolute paths, nothing relative to wherever it was started.
    bool usable = argc == 3 || argc == 4;
    for (int i = 1; usable && i < argc; ++i) usable = argv[i][0] == '/';
    if (!usable) {
        fprintf(stderr, "usage: train source-path destination-path [wrapper-path]\n");
        return EX_USAGE;
    }
    const QString wrapper = argc == 4 ? QFile::decodeName(argv[3]) : QString();
    return InstallApplication(QFile::decodeName(argv[1]), QFile::decodeName(argv[2]), wrapper);
}
