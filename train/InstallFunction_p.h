// What InstallApplication needs from the operating system: items named in
// open folders, so that nothing the user renames or links during a run can
// redirect it.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <atomic>
#include <optional>

#include "InstallFunction.h"
#include "KVFileManager_p.h"

namespace InstallPlatform {
using KVFileManagerPlatform::FileDescriptor;

// An item's name in an open folder, with its path for the log.
struct Place {
    FileDescriptor folder;
    QByteArray name;
    QString path;
};

// The folder holding the path's last component, opened without following a
// link in any component when the rights are restricted. Paths with empty,
// "." or ".." components have no place.
std::optional<Place> placeOf(const QString &path, const InstallRights &rights);
// The item that a place names, when there is one (a link counts).
bool exists(const Place &place);
// The folder an existing place names, opened without following a link.
std::optional<FileDescriptor> openFolder(const Place &place);
// The item name in an open folder.
Place placeIn(const FileDescriptor &folder, const QByteArray &name, const QString &path);

// Holds the place's folder for one installation at a time, until the process
// ends or the descriptor closes. Tells whether another run held it first.
bool lockFolder(const Place &place, bool *waited);

// The source folder, resolved through links with the reader's rights.
std::optional<FileDescriptor> openSource(const QString &path, const InstallRights &rights);
bool isBundle(int source, const InstallRights &rights);
QList<QByteArray> contentsOf(int source, const InstallRights &rights);
// Whether the source is the item at the place, holds it, or lies inside it.
bool overlaps(int source, const Place &place);

// Copies the source folder (or the item name in it, when not empty) to the
// staging item beside the place, replacing one that a killed run left.
bool stage(int source, const QByteArray &name, const Place &place, const QByteArray &staging,
           const InstallRights &rights, const std::atomic<bool> *cancel);
void discard(const Place &place, const QByteArray &staging);
// Renames the staged item to the place, which must be free.
bool putInPlace(const Place &place, const QByteArray &staging);
bool remove(const Place &place);
// Moves the item at the place to the trash of the rights' user. Where no
// trash can take it, a privileged run keeps it beside under a name it logs.
bool trash(const Place &place, const InstallRights &rights);
}  // namespace InstallPlatform
