// Collects what the process writes to standard error while it lives, so that
// a test can compare the diagnostics of a routine word for word.
#pragma once

#include <QByteArray>
#include <QTemporaryFile>

#include <cstdio>

#include <unistd.h>

class StderrCapture
{
public:
    StderrCapture()
    {
        if (!m_file.open())
            qFatal("StderrCapture: no temporary file");
        std::fflush(stderr);
        dup2(m_file.handle(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Everything written since construction; standard error is restored.
    QByteArray take()
    {
        restore();
        m_file.seek(0);
        return m_file.readAll();
    }

private:
    void restore()
    {
        if (m_saved == -1)
            return;
        std::fflush(stderr);
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        m_saved = -1;
    }

    QTemporaryFile m_file;
    int m_saved = dup(STDERR_FILENO);
};
