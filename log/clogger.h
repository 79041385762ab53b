// The result report of an unattended download.
//
// The report's first nine bytes carry the run's status marker ("[开始]\n" while
// the run is under way, replaced in place by "[成功]\n" or "[失败]\n" at its
// end); every status line the download dialog shows follows, one per line.
// Every write is flushed and synced: the file may lie on a stick that the
// operator pulls out right afterwards. Without a file every call does nothing.
#pragma once

#include <QString>

#include <memory>

class QFile;

class CLogger
{
public:
    // The single instance, built on first use and destroyed at exit.
    static CLogger* GetInstance();

    // Closes the current report, then starts a new one at `path`: an existing
    // file is deleted, missing directories are created, and the new file is
    // opened read-write. Does not write the start marker. False when the file
    // could not be opened (the logger then has no file).
    bool open(const QString& path);

    // Appends `text` (UTF-8) at the end of the report.
    void write(const QString& text);

    // Overwrites the head of the report with `text` (UTF-8), never truncating.
    void writeReport(const QString& text);

    // Flushes and ends the report. Harmless without a report.
    void close();

    // Opens the report last opened again, to add to it after its end: the
    // outcome of an unattended run can still gain a line once the run has
    // ended. False when there was none or it cannot be opened.
    bool reopen();

    bool isOpen() const;

private:
    CLogger() = default;
    ~CLogger();

    // Opens m_path read-write as the report, without touching its content.
    bool openFile();

    std::unique_ptr<QFile> m_file;
    QString m_path; // of the last report opened
};
