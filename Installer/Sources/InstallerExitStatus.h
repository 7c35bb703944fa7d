// How an unattended run ends: the installer's exit status, one value per
// cause. Scripts read these numbers; the README lists them.
#pragma once

enum class InstallerExitStatus : int {
    Installed = 0,
    // "Could not delete existing copy.": the old copy stays in place.
    CouldNotDeleteExistingCopy = 1,
    // The copy itself failed, plainly or through the privileged tool.
    CopyFailed = 2,
    // A running copy (or another program with a quit code) refused to quit.
    RefusedToQuit = 3,
    // The administrator's rights were not given: the request was dismissed
    // or refused, or nobody could be asked (no terminal, no agent).
    AuthorizationNotGiven = 4,
    // The product needs a newer system than the one running.
    SystemTooOld = 5,
    // The command line cannot drive a run (the value sysexits calls EX_USAGE).
    BadArguments = 64,
};
