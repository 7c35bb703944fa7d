// The real privileged path for tests: a system bus and polkitd, with a rule
// that answers pkexec for the unprivileged test user with yes or no. Needs
// root; everything it starts it stops again, by process id. One object in
// one process at a time: a second waits for the first to go.
#pragma once

#include <sys/types.h>

#include <QString>

class Polkit {
public:
    // Starts what is missing and installs the rule; ok() tells whether it worked.
    explicit Polkit(bool consent);
    ~Polkit();
    Polkit(const Polkit &) = delete;
    Polkit &operator=(const Polkit &) = delete;

    bool ok() const { return m_ok; }
    QString error() const { return m_error; }

private:
    // Why it failed; empty when it worked.
    QString start(bool consent);

    QString m_rule, m_error;
    pid_t m_bus = 0, m_polkitd = 0;
    int m_lock = -1;
    bool m_ok = false;
};
