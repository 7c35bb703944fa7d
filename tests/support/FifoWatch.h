// A FIFO that no reader may wait on: the code under test must never open it.
// Should it try, a watcher opens the writing end at once, which ends the
// reader's wait with an empty file, so the test fails instead of hanging.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <atomic>
#include <chrono>
#include <thread>

class FifoWatch {
public:
    explicit FifoWatch(const QString &path) : m_path(QFile::encodeName(path)) {
        m_made = mkfifo(m_path.constData(), 0644) == 0;
        m_watcher = std::thread([this] {
            while (!m_done) {
                // Opening to write without waiting works only while a reader has it open.
                const int fd = open(m_path.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                if (fd >= 0) {
                    m_readerWaited = true;
                    close(fd);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    }
    ~FifoWatch() {
        m_done = true;
        m_watcher.join();
    }
    FifoWatch(const FifoWatch &) = delete;
    FifoWatch &operator=(const FifoWatch &) = delete;

    bool made() const { return m_made; }
    // Whether anything opened the FIFO to read.
    bool readerWaited() const { return m_readerWaited; }

private:
    QByteArray m_path;
    bool m_made = false;
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_readerWaited{false};
    std::thread m_watcher;
};
