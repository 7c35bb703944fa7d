// Puts the product into place: copies it into a hidden staging item beside
// the destination, moves an existing copy at the destination to the trash and
// renames the staged copy into place, so that the destination always holds a
// complete product. A product that comes inside a wrapper folder brings the
// wrapper's other items along. Used by the installer and by its privileged
// tool, so it does no authorization itself.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QString>

// Whose rights an installation works with. The installer installs with the
// user's own. The privileged tool runs as root for an invoking user and
// trusts nothing that user controls: the destination path is walked without
// following links, every write goes through folder descriptors, set-id,
// sticky and group/other write bits are cleared, only user.* extended
// attributes are copied, and items take the owner of the folder they go to.
struct InstallRights {
    bool restricted = false;
    // The user the work is done for when that is not the process itself
    // (-1: the process's own): the source is read with that user's rights
    // and the replaced copy goes to that user's trash.
    uid_t user = uid_t(-1);
    gid_t group = gid_t(-1);
    QByteArray home;
};

// The destination is the product's full path after installation; with a
// wrapper (a null string for none) the destination's parent folder is the
// installed wrapper. The source must be a bundle folder (Contents/Info.plist).
// Returns 0 on success, 1 when the existing copy could not be moved to the
// trash (it stays in place), 2 when a copy failed, the source is no bundle
// or the source and destination overlap (nothing is replaced). One
// installation into a folder runs at a time; a second one waits.
int InstallApplication(const QString &source, const QString &destination, const QString &wrapper,
                       const InstallRights &rights = {});

// Stops a running installation from another thread, for a program that is
// quitting: its staging item is removed and nothing installed is replaced.
void InstallApplicationCancel();
