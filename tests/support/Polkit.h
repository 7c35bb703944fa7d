// The real privileged path for tests: a system bus and polkitd, with a rule
// that answers pkexec for the unprivileged test user with yes or no. Needs
// root; stops what it started, by process id. One object at a time on the
// machine: a second waits for the first to go.
#pragma once

#include <sys/types.h>

#include <QString>

class Polkit {
public:
    explicit Polkit(bool consent);
    ~Polkit();
    Polkit(const Polkit &) = delete;
    Polkit &operator=(const Polkit &) = delete;

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }

private:
    QString start(bool consent);  // why it failed, or nothing

    QString m_rule, m_error;
    pid_t m_bus = 0, m_polkitd = 0;
    int m_lock = -1;
};
