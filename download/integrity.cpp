// Integrity verification: package files against their listed size and CRC-32,
// and a runtime environment against its own MD5 list with the panel's md5sum.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "download/qsettingsfactory.h"
#include "platform/platform.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <vector>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

extern char** environ;

namespace {

// Files are read for their checksum in pieces of this size: large enough that
// the system calls cost little against the reading, small enough to keep the
// screen's events coming several times per millisecond.
constexpr qint64 kCrcChunk = 64 * 1024;
constexpr qint64 kSizeLimit = Q_INT64_C(1) << 32;
// Files from this size on are read for their checksum in two halves at once.
constexpr qint64 kSplitBytes = 4 << 20;

// The CRC-32 of `length` bytes of `fd` from `offset` on, read without moving
// the descriptor's position; nothing when a read fails or `abandon` is set.
std::optional<uLong> crcOfRange(int fd, qint64 offset, qint64 length, const std::atomic<bool>& abandon)
{
    std::vector<char> buffer(kCrcChunk);
    uLong crc = crc32(0, nullptr, 0);
    while (length > 0) {
        if (abandon)
            return std::nullopt;
        const ssize_t count = pread(fd, buffer.data(), static_cast<size_t>(qMin(length, kCrcChunk)), offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return std::nullopt;
        crc = crc32(crc, reinterpret_cast<const Bytef*>(buffer.data()), static_cast<uInt>(count));
        offset += count;
        length -= count;
    }
    return crc;
}

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
// The longest wait for md5sum's output without a look at the screen.
constexpr int kPollMs = 5;

// A shell command whose standard output is read through a pipe, as popen(cmd,
// "r") would run it, but with the pipe's descriptor and the child's process
// group in hand: md5sum takes seconds over a runtime on a panel, and the
// screen must stay alive and a stop be honoured while it does.
//
// The output comes in the lines fgets would give: each ends after a newline or
// after kLineBytes - 1 bytes, whichever comes first. fgets itself cannot be
// trusted here: when a signal interrupts its read, it drops the part of the
// line it already had and returns the same null as at the end of the output.
// A timer signal during the check would then end it early, and a runtime that
// md5sum was about to reject would pass.
class CommandOutput
{
public:
    enum Result { Line, End, Failed, Stopped };

    // `waiting` is called while the output is awaited, at least every kPollMs;
    // it keeps the screen alive and returns true when the command is to be
    // given up.
    CommandOutput(const QByteArray& command, std::function<bool()> waiting)
        : m_waiting(std::move(waiting))
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attributes;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawnattr_init(&attributes);
        // A group of its own, so that a stop ends the shell and md5sum alike.
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        const char* const argv[] = {"sh", "-c", command.constData(), nullptr};
        if (posix_spawn(&m_child, "/bin/sh", &actions, &attributes, const_cast<char* const*>(argv), environ) != 0)
            m_child = -1;
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (m_child == -1)
            ::close(ends[0]);
        else
            m_fd = ends[0];
    }

    ~CommandOutput() { close(); }
    CommandOutput(const CommandOutput&) = delete;
    CommandOutput& operator=(const CommandOutput&) = delete;

    bool started() const { return m_fd >= 0; }

    // The next line into `line`, zero-terminated and with its newline.
    Result next(char (&line)[kLineBytes])
    {
        size_t length = 0;
        while (length < kLineBytes - 1) {
            if (m_begin == m_end) {
                const Result filled = fill();
                if (filled == Failed || filled == Stopped)
                    return filled;
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

    // Ends the reading and waits for the command, which is ended first when
    // its output was not read to the end. False when it cannot be waited for.
    bool close()
    {
        if (m_fd < 0)
            return true;
        ::close(m_fd);
        m_fd = -1;
        // The rest of a report that is no longer read is of no interest.
        if (!m_ended)
            kill(-m_child, SIGKILL);
        int status = 0;
        pid_t waited;
        do
            waited = waitpid(m_child, &status, 0);
        while (waited == -1 && errno == EINTR);
        return waited == m_child;
    }

private:
    Result fill()
    {
        for (;;) {
            // Called before every wait and every read, so that output that
            // comes steadily does not starve the screen either.
            if (m_waiting())
                return Stopped;
            pollfd ready = {m_fd, POLLIN, 0};
            const int count = poll(&ready, 1, kPollMs);
            if (count == 0 || (count < 0 && errno == EINTR))
                continue;
            if (count < 0)
                return Failed;
            const ssize_t got = ::read(m_fd, m_buffer, sizeof m_buffer);
            if (got > 0) {
                m_begin = 0;
                m_end = static_cast<size_t>(got);
                return Line;
            }
            if (got == 0) {
                m_ended = true;
                return End;
            }
            if (errno != EINTR)
                return Failed;
        }
    }

    std::function<bool()> m_waiting;
    pid_t m_child = -1;
    int m_fd = -1;
    bool m_ended = false;
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

bool ProjectDownload::keepScreenAlive()
{
    if (!m_sinceEvents.isValid() || m_sinceEvents.hasExpired(kEventIntervalMs)) {
        QCoreApplication::processEvents();
        m_sinceEvents.start();
    }
    return m_stop;
}

void ProjectDownload::rememberInPlace(const QString& path, unsigned int crc)
{
    struct stat info;
    if (stat(QFile::encodeName(path).constData(), &info) == 0)
        m_inPlace.insert(path, InPlaceFile{info, crc});
}

bool ProjectDownload::inPlaceCrc(const QString& path, unsigned int& crc) const
{
    const auto known = m_inPlace.constFind(path);
    struct stat now;
    if (known == m_inPlace.cend() || stat(QFile::encodeName(path).constData(), &now) != 0)
        return false;
    // Any write, truncation or replacement since the file was measured
    // changes its identity, size or change time, which nothing can set back.
    const struct stat& then = known->identity;
    if (now.st_dev != then.st_dev || now.st_ino != then.st_ino || now.st_size != then.st_size
        || now.st_mtim.tv_sec != then.st_mtim.tv_sec || now.st_mtim.tv_nsec != then.st_mtim.tv_nsec
        || now.st_ctim.tv_sec != then.st_ctim.tv_sec || now.st_ctim.tv_nsec != then.st_ctim.tv_nsec)
        return false;
    crc = known->crc;
    return true;
}

bool ProjectDownload::CalcFileCrc(const std::string& path, unsigned int& crc)
{
    crc = 0;
    QFile file(QString::fromStdString(path));
    if (!file.exists() || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;

    const qint64 size = file.size();
    if (!file.seek(0))
        return false;

    // A large file is read in two halves at once where there are two
    // processors: the second half on a thread of its own, its checksum joined
    // to the first's afterwards.
    qint64 remaining = size;
    std::atomic<bool> abandon(false);
    std::future<std::optional<uLong>> secondHalf;
    if (size >= kSplitBytes && std::thread::hardware_concurrency() > 1) {
        remaining = size / 2;
        secondHalf = std::async(std::launch::async, crcOfRange, file.handle(), remaining, size - remaining,
                                std::cref(abandon));
    }
    // Ends the second half's reading before the file closes.
    const auto giveUp = [&] {
        abandon = true;
        if (secondHalf.valid())
            secondHalf.wait();
        crc = 0;
        return false;
    };

    // A large file on a stick takes seconds to read, and so do many small
    // ones: the screen and the stop button stay alive meanwhile. A stop gives
    // up the file like a failed read.
    std::vector<char> buffer(kCrcChunk);
    while (remaining > 0) {
        const qint64 count = qMin(remaining, kCrcChunk);
        if (file.read(buffer.data(), count) != count)
            return giveUp();
        crc = static_cast<unsigned int>(
            crc32(crc, reinterpret_cast<const Bytef*>(buffer.data()), static_cast<uInt>(count)));
        remaining -= count;
        if (keepScreenAlive())
            return giveUp();
    }
    if (!secondHalf.valid())
        return true;
    while (secondHalf.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
        if (keepScreenAlive())
            return giveUp();
    }
    const std::optional<uLong> second = secondHalf.get();
    if (!second)
        return giveUp();
    crc = static_cast<unsigned int>(crc32_combine64(crc, *second, size - size / 2));
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

        // A file that the copy found in place and left alone was measured
        // there already; reading it once more would prove nothing new.
        unsigned int crc = 0;
        if (inPackage || !inPlaceCrc(path, crc))
            CalcFileCrc(path.toStdString(), crc);
        if (m_stop)
            return false;
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
    CommandOutput output(command, [this] { return keepScreenAlive(); });
    if (!output.started()) {
        if (package)
            resetUpgrageUI(msg(2067).arg(listName));
        return false;
    }

    char line[kLineBytes];
    for (;;) {
        const CommandOutput::Result got = output.next(line);
        if (got == CommandOutput::End)
            break;
        // A stop has been told by the stop button; the caller ends the run.
        if (got == CommandOutput::Stopped)
            return false;
        if (got == CommandOutput::Failed) {
            // Output that could not be read whole proves nothing.
            if (package)
                resetUpgrageUI(msg(2067).arg(listName));
            return false;
        }
        const size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n')
            line[length - 1] = '\0';
        if (strstr(line, "OK") != nullptr)
            continue;

        if (package) {
            resetUpgrageUI(msg(2068).arg(QString::fromUtf8(line)));
            return false;
        }
        // A changed logger configuration of the installed runtime is allowed,
        // and md5sum closes a failed check with a summary line that says
        // nothing of its own: only a failure followed by more output counts.
        if (strstr(line, "logger.ini") != nullptr)
            continue;
        const CommandOutput::Result more = output.peek();
        if (more == CommandOutput::End)
            continue;
        return false;
    }

    if (!output.close())
        perror("checkFile pclose failed!\n");
    return true;
}
