// Puts the product into place: moves an existing copy at the destination to
// the trash, copies the product there and, for a product that comes inside a
// wrapper folder, brings the wrapper's other items along. Used by the
// installer and by its privileged tool, so it does no authorization itself.
#pragma once

#include <QString>

// The destination is the product's full path after installation; with a
// wrapper (a null string for none) the destination's parent folder is the
// installed wrapper. Returns 0 on success, 1 when the existing copy could not
// be moved to the trash (nothing was copied), 2 when a copy failed.
int InstallApplication(const QString &source, const QString &destination, const QString &wrapper);
