#include "fuzzsupport.h"

#include "text/multilingualmanager.h"
#include "tools/kit/runtime.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

// The package flushes every disk of the machine after each file it writes,
// as a panel whose power may go next needs. Under a fuzzer that is thousands
// of whole-system flushes a second of scratch files nobody needs on disk, so
// the fuzz targets take the call over and do nothing.
extern "C" void sync() noexcept {}

namespace fuzz {

QString scratchDir()
{
    static QTemporaryDir* dir = [] {
        const QString base = QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm")
                                                                                 : QDir::tempPath();
        static QTemporaryDir scratch(base + QStringLiteral("/opxfuzz-XXXXXX"));
        if (!scratch.isValid() || !QDir(scratch.path()).mkpath(QStringLiteral("tmp"))
            || !QDir::setCurrent(scratch.path())) {
            std::fprintf(stderr, "fuzz: no scratch directory under %s\n", qPrintable(base));
            std::abort();
        }
        qputenv("KAVO_PANEL_ROOT", QFile::encodeName(scratch.path()));
        // Hostile input makes Qt warn (an INI line it cannot parse, a text
        // with a place holder missing) on nearly every run; printing that
        // would cost more than the run itself.
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            if (type == QtFatalMsg) {
                std::fprintf(stderr, "%s\n", qPrintable(text));
                std::abort();
            }
        });
        // The package's texts, so that every message is formed as on a panel.
        initKavoResources();
        MultilingualManager::GetInstance()->loadMultilingualFile(kBuiltinLanguageFile, QString());
        return &scratch;
    }();
    return dir->path();
}

QString freshPath(const QString& stem)
{
    static quint64 serial = 0;
    return scratchDir() + QLatin1Char('/') + stem + QLatin1Char('-') + QString::number(++serial);
}

QByteArray bytes(const uint8_t* data, size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size));
}

QList<QByteArray> files(const QByteArray& input, int count)
{
    static const QByteArray separator("\n--8<--\n");
    QList<QByteArray> parts;
    int from = 0;
    while (parts.size() < count - 1) {
        const int at = input.indexOf(separator, from);
        if (at < 0)
            break;
        parts.append(input.mid(from, at - from + 1));
        from = at + separator.size();
    }
    parts.append(input.mid(from));
    while (parts.size() < count)
        parts.append(QByteArray());
    return parts;
}

void writeFile(const QString& path, const QByteArray& content, bool scrambled)
{
    const bool written = scrambled ? kit::writeScrambled(path, content) : kit::writeFile(path, content);
    if (!written) {
        std::fprintf(stderr, "fuzz: cannot write %s\n", qPrintable(path));
        std::abort();
    }
}

} // namespace fuzz
