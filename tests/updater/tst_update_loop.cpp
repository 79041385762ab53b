// The whole runtime update loop: the download dialog hands over to the real
// updater on the stick, the updater replaces the panel's runtime and starts
// the real package again in resume mode, and that one downloads the project
// and reboots the panel.
#include "download/dlgdownload.h"

#include "platform/kavo_api.h"
#include "text/multilingualmanager.h"
#include "tools/kit/panel.h"
#include "tools/kit/stick.h"

#include "testenv.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMessageBox>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QTimer>
#include <QtTest>

#include <csignal>
#include <utility>

namespace {

QString msg(int id)
{
    return MultilingualManager::GetInstance()->getMultilingualValue(id);
}

// Answers every modal box with Yes and records it as "title|text".
class YesSayer : public QObject
{
public:
    YesSayer()
    {
        connect(&m_timer, &QTimer::timeout, this, &YesSayer::poll);
        m_timer.start(10);
    }

    QStringList seen;

private:
    void poll()
    {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr || !box->isVisible())
            return;
        seen << box->windowTitle() + QLatin1Char('|') + box->text();
        if (QAbstractButton* yes = box->button(QMessageBox::Yes))
            yes->click();
        else
            box->reject();
    }

    QTimer m_timer;
};

// Sets the dialog's stop flag the moment the dialog goes away. On the panel
// the resumed package stops this one with SIGTERM; in the test the sequence,
// which deliberately goes on after the hand-over, is stopped by its own flag.
class StopOnClose : public QObject
{
public:
    explicit StopOnClose(dlgDownLoad& dialog)
        : m_dialog(dialog)
    {
        connect(&dialog, &QDialog::finished, this, [this] { stop(); });
        dialog.installEventFilter(this);
    }

    bool closed = false;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == &m_dialog && event->type() == QEvent::Hide)
            stop();
        return false;
    }

private:
    void stop()
    {
        closed = true;
        m_dialog.m_stop = true;
    }

    dlgDownLoad& m_dialog;
};

// Ends the packages still running from `exe`, the stick copy this test made,
// so that a failed run leaves nothing behind.
void stopPackagesOf(const QString& exe)
{
    const QString target = QFileInfo(exe).canonicalFilePath();
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool number = false;
        const qint64 pid = entry.toLongLong(&number);
        if (number && pid != QCoreApplication::applicationPid()
            && QFileInfo(QStringLiteral("/proc/") + entry + QStringLiteral("/exe")).canonicalFilePath() == target)
            ::kill(static_cast<pid_t>(pid), SIGTERM);
    }
}

// Stops what is left of a run when a test ends, passed or not.
class PackageReaper
{
public:
    explicit PackageReaper(QString exe)
        : m_exe(std::move(exe))
    {
    }
    ~PackageReaper() { stopPackagesOf(m_exe); }
    PackageReaper(const PackageReaper&) = delete;
    PackageReaper& operator=(const PackageReaper&) = delete;

private:
    QString m_exe;
};

} // namespace

class tst_update_loop : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void updatesRuntimeThenDownloads();
};

void tst_update_loop::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_EXECUTABLE")).isExecutable(), "OPX_EXECUTABLE names no executable");
    QVERIFY2(QFileInfo(qEnvironmentVariable("OPX_HELPER")).isExecutable(), "OPX_HELPER names no executable");
}

void tst_update_loop::updatesRuntimeThenDownloads()
{
    testenv::TempPanel panel;
    QTemporaryDir stick;
    QVERIFY(panel.isValid() && stick.isValid());
    const QString previousDir = QDir::currentPath();

    kit::PanelSpec panelSpec;
    panelSpec.runtime.version = QStringLiteral("7.1.0");
    QVERIFY(kit::makePanel(panel.root(), panelSpec));

    kit::PackageSpec package;
    package.executable = qEnvironmentVariable("OPX_EXECUTABLE");
    package.helper = qEnvironmentVariable("OPX_HELPER");
    QVERIFY(kit::writePackage(stick.path(), package));
    kit::ProjectSpec project;
    project.withRuntime = true;
    project.runtime.version = QStringLiteral("7.2.1");
    project.runtime.files.insert(QStringLiteral("bin/kavo_app"), QByteArray("kavo runtime application 7.2.1\n"));
    QVERIFY(kit::writeProject(stick.path(), project));
    const QString exe = stick.path() + QStringLiteral("/opxupdateu/opxupdateu_proj.bin");
    const PackageReaper reaper(exe);
    const QString rebootRecord = panel.path(QStringLiteral("/var/run/reboot-requested"));

    {
        dlgDownLoad dialog(QString::fromUtf8(Kavo_GetDirectory(3)), QStringLiteral("0001"));
        dialog.setPackageRoot(stick.path());
        dialog.setProjectName(project.name);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dialog));
        StopOnClose stopper(dialog);
        YesSayer yes;
        dialog.clickedStartBt();
        QCOMPARE(yes.seen, QStringList{msg(2034) + QLatin1Char('|') + msg(2033).arg(QStringLiteral("7.1.0"),
                                                                                     QStringLiteral("7.2.1"))});
        QVERIFY2(stopper.closed, "the dialog did not close after handing over to the updater");
        QVERIFY(!dialog.isVisible());
        // Stopped before the disk space check: this run changed nothing on the panel.
        const QString pane = dialog.findChild<QTextEdit*>(QStringLiteral("textEdit"))->toPlainText();
        QVERIFY2(pane.contains(msg(2022)) && !pane.contains(msg(2044)), qPrintable(pane));
    }
    QDir::setCurrent(previousDir);

    // The resumed package downloads, counts ten seconds down and reboots.
    QElapsedTimer timer;
    timer.start();
    while (!QFileInfo::exists(rebootRecord) && timer.elapsed() < 60000)
        QTest::qWait(200);
    QSettings installed(panel.path(QStringLiteral("/usr/kavo_app/update.ini")), QSettings::IniFormat);
    installed.setIniCodec("UTF-8");
    const QString version = installed.value(QStringLiteral("/PREPARE/version")).toString();
    // Every start of a package stops all others on the machine: a package test
    // run elsewhere at the same moment ends this one's resumed package too.
    QVERIFY2(QFileInfo::exists(rebootRecord),
             qPrintable(QStringLiteral("the resumed package did not reboot the panel within 60 s; installed runtime ")
                        + version));
    QCOMPARE(version, QStringLiteral("7.2.1"));
    QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/usr/kavo_app/bin/kavo_app"))),
             QByteArray("kavo runtime application 7.2.1\n"));
    // The old project is gone; the area holds exactly the package's files.
    QStringList names;
    for (const kit::PackageFile& file : project.files) {
        names << file.name;
        QCOMPARE(testenv::readFile(panel.path(QStringLiteral("/usr/kavo_app/project/")) + file.name), file.content);
    }
    names.sort();
    QCOMPARE(QDir(panel.path(QStringLiteral("/usr/kavo_app/project"))).entryList(QDir::AllEntries | QDir::Hidden
                                                                                  | QDir::NoDotAndDotDot,
                                                                              QDir::Name),
             names);
    QCOMPARE(testenv::readFile(rebootRecord), QByteArray("reboot\n"));
}

QTEST_MAIN(tst_update_loop)
#include "tst_update_loop.moc"
