#include "clogger.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

CLogger* CLogger::GetInstance()
{
    static CLogger instance;
    return &instance;
}

CLogger::~CLogger()
{
    close();
}

bool CLogger::open(const QString& path)
{
    close();

    // A report left by an earlier run must not be mistaken for this run's.
    if (QFile::exists(path))
        QFile::remove(path);

    const int slash = path.lastIndexOf(QLatin1Char('/'));
    if (slash > 0) {
        const QString dir = path.left(slash);
        if (!QDir(dir).exists())
            QDir().mkpath(dir);
    }

    // A report that cannot be opened is dropped, so every later call is skipped
    // and the download goes on without it.
    m_path = path;
    return openFile();
}

bool CLogger::reopen()
{
    close();
    return !m_path.isEmpty() && QFile::exists(m_path) && openFile();
}

bool CLogger::openFile()
{
    auto file = std::make_unique<QFile>(m_path);
    if (!file->open(QIODevice::ReadWrite))
        return false;
    m_file = std::move(file);
    return true;
}

void CLogger::write(const QString& text)
{
    if (!isOpen())
        return;
    m_file->seek(m_file->size());
    m_file->write(text.toUtf8());
    m_file->flush();
    // The report may lie on the stick, which the operator may pull right away.
    ::sync();
}

void CLogger::writeReport(const QString& text)
{
    if (!isOpen())
        return;
    // The three status markers have the same byte length, so the new one covers
    // the old one exactly and the status lines behind it stay intact.
    m_file->seek(0);
    m_file->write(text.toUtf8());
    m_file->flush();
    m_file->seek(m_file->size());
    ::sync();
}

void CLogger::close()
{
    if (!m_file)
        return;
    if (m_file->isOpen()) {
        m_file->flush();
        m_file->close();
        ::sync();
    }
    m_file.reset();
}

bool CLogger::isOpen() const
{
    return m_file && m_file->isOpen();
}
