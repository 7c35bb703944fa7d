// A FIFO the code under test must never open: should it try, a watcher opens
// the writing end at once, ending the reader's wait with an empty file, so
// the test fails instead of hanging.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QThread>
#include <atomic>
#include <thread>

class FifoWatch {
public:
    explicit FifoWatch(const QString &path)
        : m_path(QFile::encodeName(path)), m_made(mkfifo(m_path.constData(), 0644) == 0) {}
    ~FifoWatch() { m_done = true, m_watcher.join(); }
    bool made() const { return m_made; }
    bool readerWaited() const { return m_readerWaited; }

private:
    const QByteArray m_path;
    const bool m_made;
    std::atomic<bool> m_done{false}, m_readerWaited{false};
    std::thread m_watcher{[this] {
        for (; !m_done; QThread::msleep(20)) {
            // Opening to write without waiting works only while a reader has it open.
            const int fd = open(m_path.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd >= 0) m_readerWaited = true, close(fd);
        }
    }};
};
