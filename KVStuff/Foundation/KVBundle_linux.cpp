#include <QFileInfo>

#include "KVBundle.h"

QString KVBundle::executableFilePath() {
    return QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
}
