// Integrity verification: package files against their listed size and CRC-32,
// and a runtime environment against its own MD5 list with the panel's md5sum.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "download/qsettingsfactory.h"
#include "platform/platform.h"

#include <QFile>
#include <QSettings>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr qint64 kCrcChunk = 4096;
constexpr qint64 kSizeLimit = Q_INT64_C(1) << 32;

// The working directory at construction, taken back on destruction. Held as a
// descriptor so that it is found again even if its path cannot be printed.
class WorkingDirGuard
{
public:
    WorkingDirGuard()
        : m_fd(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
    }
    ~WorkingDirGuard()
    {
        if (m_fd < 0)
            return;
        if (fchdir(m_fd) != 0)
            perror("restore working directory");
        close(m_fd);
    }
    WorkingDirGuard(const WorkingDirGuard&) = delete;
    WorkingDirGuard& operator=(const WorkingDirGuard&) = delete;

private:
    int m_fd;
};

// `word` as one shell word. The MD5 list name comes from a description file of
// the package or the panel; quoting keeps any text in it from being run.
QByteArray shellQuoted(const QByteArray& word)
{
    QByteArray quoted("'");
    for (const char c : word) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    quoted += '\'';
    return quoted;
}

// md5sum's report is read in lines of at most this size, terminator included.
constexpr size_t kLineBytes = 1024;

// The output of a command, in the lines fgets would give: each ends after a
// newline or after kLineBytes - 1 bytes, whichever comes first. It reads the
// pipe's descriptor itself because fgets cannot be trusted here: when a
// signal interrupts its read, it drops the part of the line it already had and
// returns the same null as at the end of the output. A timer signal during the
// check would then end it early, and a runtime that md5sum was about to
// reject would pass.
class CommandOutput
{
public:
    enum Result { Line, End, Failed };

    explicit CommandOutput(FILE* pipe)
        : m_fd(fileno(pipe))
    {
    }

    // The next line into `line`, zero-terminated and with its newline.
    Result next(char (&line)[kLineBytes])
    {
        size_t length = 0;
        while (length < kLineBytes - 1) {
            if (m_begin == m_end) {
                const Result filled = fill();
                if (filled == Failed)
                    return Failed;
                if (filled == End) {
                    if (length == 0)
                        return End;
                    break;
                }
            }
            const char c = m_buffer[m_begin++];
            line[length++] = c;
            if (c == '\n')
                break;
        }
        line[length] = '\0';
        return Line;
    }

    // Line when more output follows, End when the output is over.
    Result peek() { return m_begin < m_end ? Line : fill(); }

private:
    Result fill()
    {
        for (;;) {
            const ssize_t got = ::read(m_fd, m_buffer, sizeof m_buffer);
            if (got > 0) {
                m_begin = 0;
                m_end = static_cast<size_t>(got);
                return Line;
            }
            if (got == 0)
                return End;
            if (errno != EINTR)
                return Failed;
        }
    }

    int m_fd;
    char m_buffer[kLineBytes];
    size_t m_begin = 0;
    size_t m_end = 0;
};

// The checksum text of a CRC-32: upper-case hexadecimal without leading zeros,
// the form the project description lists.
QString crcText(unsigned int crc)
{
    return QString::number(crc, 16).toUpper();
}

} // namespace

bool ProjectDownload::CalcFileCrc(const std::string& path, unsigned int& crc)
{
    crc = 0;
    QFile file(QString::fromStdString(path));
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return false;

    qint64 remaining = file.size();
    if (!file.seek(0))
        return false;

    char buffer[kCrcChunk];
    while (remaining > 0) {
        const qint64 count = qMin(remaining, kCrcChunk);
        if (file.read(buffer, count) != count) {
            file.close();
            crc = 0;
            return false;
        }
        crc = static_cast<unsigned int>(
            crc32(crc, reinterpret_cast<const Bytef*>(buffer), static_cast<uInt>(count)));
        remaining -= count;
    }
    return true;
}

bool ProjectDownload::checkFileCRC(downLoadStatus status)
{
    if (m_stop)
        return false;

    const bool inPackage = status == BEFORE_DOWNLOAD;
    for (const FILE_INFO& info : qAsConst(m_fileList)) {
        if (m_stop)
            return false;

        const QString name = inPackage ? info.fileName : panelName(info.fileName);
        if (name.isEmpty())
            continue;
        const QString path = inPackage ? info.srcPath + name : destinationPath(info);

        qint64 size = 0;
        {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly)) {
                setTextEditContent(msg(inPackage ? 2018 : 2017));
                return false;
            }
            size = file.size();
        }
        // The listed size is 32 bits wide; a larger file must not match it
        // modulo 4 GiB.
        if (size >= kSizeLimit || size != static_cast<qint64>(info.size)) {
            setTextEditContent(msg(inPackage ? 2019 : 2017));
            return false;
        }

        unsigned int crc = 0;
        CalcFileCrc(path.toStdString(), crc);
        if (!info.crc.isEmpty() && info.crc != crcText(crc)) {
            setTextEditContent(msg(inPackage ? 2019 : 2017));
            return false;
        }
    }
    return true;
}

bool ProjectDownload::checkAppIntegrity(checkPath which, const char* dir)
{
    const WorkingDirGuard workingDir;
    const bool package = which == PACKAGE_APP;

    if (!AccessFile::changeWorkingDir(dir)) {
        resetUpgrageUI(msg(2064).arg(QString::fromUtf8(dir)));
        return false;
    }

    QString description = QStringLiteral("./update.ini");
    std::optional<FreshCopy> clearDescription;
    if (package) {
        const QString clearCopy = platform::panelPath(download::strDecryptFilePath);
        if (!QSettingsFactory::decryptFile(description, clearCopy, CRYPT_WITH_MARK)) {
            resetUpgrageUI(msg(2065));
            return false;
        }
        clearDescription.emplace(clearCopy);
        description = clearDescription->path();
    }

    QString listName;
    {
        QSettings settings(description, QSettings::IniFormat);
        settings.setIniCodec("UTF-8");
        const QString version = settings.value(QStringLiteral("/PREPARE/version")).toString();
        listName = QStringLiteral("version.")
                   + version.split(QLatin1Char(' '), Qt::SkipEmptyParts).value(0);

        if (!package && settings.contains(QStringLiteral("/PREPARE/product"))) {
            const QString product = settings.value(QStringLiteral("/PREPARE/product")).toString();
            if (product.isEmpty())
                return false;
            m_panelProduct = product;
        }
    }

    if (!QFile::exists(listName)) {
        if (package)
            resetUpgrageUI(msg(2066).arg(listName));
        return false;
    }

    const QByteArray command = "md5sum -c " + shellQuoted(listName.toUtf8()) + " 2>&1";
    FILE* pipe = popen(command.constData(), "r");
    if (pipe == nullptr) {
        if (package)
            resetUpgrageUI(msg(2067).arg(listName));
        return false;
    }

    CommandOutput output(pipe);
    char line[kLineBytes];
    for (;;) {
        const CommandOutput::Result got = output.next(line);
        if (got == CommandOutput::End)
            break;
        if (got == CommandOutput::Failed) {
            // Output that could not be read whole proves nothing.
            if (package)
                resetUpgrageUI(msg(2067).arg(listName));
            pclose(pipe);
            return false;
        }
        const size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n')
            line[length - 1] = '\0';
        if (strstr(line, "OK") != nullptr)
            continue;

        if (package) {
            resetUpgrageUI(msg(2068).arg(QString::fromUtf8(line)));
            pclose(pipe);
            return false;
        }
        // A changed logger configuration of the installed runtime is allowed,
        // and md5sum closes a failed check with a summary line that says
        // nothing of its own: only a failure followed by more output counts.
        if (strstr(line, "logger.ini") != nullptr)
            continue;
        if (output.peek() == CommandOutput::End)
            continue;
        pclose(pipe);
        return false;
    }

    if (pclose(pipe) == -1)
        perror("checkFile pclose failed!\n");
    return true;
}
