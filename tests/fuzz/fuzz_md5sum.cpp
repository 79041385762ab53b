// The integrity check's reading of md5sum's report. A stand-in md5sum prints
// the input as its report; the verdict on the installed runtime and on a
// package's runtime copy must be the one the report calls for.
#include "fuzzsupport.h"

#include "recordingdownload.h"

#include <QFile>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

namespace {

constexpr int kLineBytes = 1024;

struct Setup
{
    QString installed;
    QString package;
    QString report;
};

const Setup& setup()
{
    static const Setup s = [] {
        Setup made;
        const QString root = fuzz::scratchDir();
        made.report = root + QStringLiteral("/report");
        const QString md5sum = root + QStringLiteral("/bin/md5sum");
        fuzz::writeFile(md5sum, "#!/bin/sh\nexec cat '" + QFile::encodeName(made.report) + "'\n");
        QFile::setPermissions(md5sum, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", QFile::encodeName(root + QStringLiteral("/bin:")) + qgetenv("PATH"));

        const QByteArray description("#\n[PREPARE]\nversion=7.2.1\nproduct=KavoPro\n");
        made.installed = root + QStringLiteral("/installed");
        fuzz::writeFile(made.installed + QStringLiteral("/update.ini"), description);
        fuzz::writeFile(made.installed + QStringLiteral("/version.7.2.1"), QByteArray());
        made.package = root + QStringLiteral("/package");
        fuzz::writeFile(made.package + QStringLiteral("/update.ini"), "###" + description, true);
        fuzz::writeFile(made.package + QStringLiteral("/version.7.2.1"), QByteArray());
        return made;
    }();
    return s;
}

// What the report calls for, read the way the check is specified: lines of at
// most 1,023 bytes, each as a C text (up to its first zero byte). Every line
// must say "OK"; the installed runtime may also have a changed logger.ini and
// a last line that is md5sum's summary.
bool expected(const QByteArray& report, bool package)
{
    int from = 0;
    while (from < report.size()) {
        int end = report.indexOf('\n', from);
        end = end < 0 ? report.size() : end + 1;
        end = std::min(end, from + kLineBytes - 1);
        const QByteArray line(report.constData() + from); // up to the first zero byte
        const QByteArray text = line.left(end - from);
        from = end;
        if (text.contains("OK"))
            continue;
        if (package)
            return false;
        if (text.contains("logger.ini") || from == report.size())
            continue;
        return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Setup& s = setup();
    const QByteArray report = fuzz::bytes(data, size);
    fuzz::writeFile(s.report, report);

    // libFuzzer's time-out watch is a timer signal every second. The check
    // reads on through interruptions, but the verdict compared here is the
    // report's alone, so the signal waits until the check is over.
    sigset_t timer;
    sigemptyset(&timer);
    sigaddset(&timer, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &timer, nullptr);
    RecordingDownload download;
    const bool installed = download.checkAppIntegrity(INSTALLED_APP, QFile::encodeName(s.installed).constData());
    const bool package = download.checkAppIntegrity(PACKAGE_APP, QFile::encodeName(s.package).constData());
    pthread_sigmask(SIG_UNBLOCK, &timer, nullptr);

    if (installed != expected(report, false) || package != expected(report, true)) {
        std::fprintf(stderr, "verdict installed %d, package %d; the report calls for %d, %d\n", installed, package,
                     expected(report, false), expected(report, true));
        std::abort();
    }
    return 0;
}
