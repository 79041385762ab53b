// The download sequence of the download dialog: one call on the GUI thread that
// proves step by step that the selected project may go onto this panel, has the
// runtime updated first where that is wanted, then replaces the panel's project,
// verifies the copy, clears the data areas the project asks for and starts the
// reboot countdown.
//
// Nothing on the panel is changed before the user file area is cleared (only
// when the project asks) and the old project is deleted; every check before
// that ends the run with the panel as it was.
#include "download/dlgdownload.h"

#include "ui_dlgdownload.h"

#include "app/constants.h"
#include "download/qsettingsfactory.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QSettings>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

constexpr int kCountdownIntervalMs = 1000;

// Clear copy of the package runtime's description, for its product name.
const QString kProductCheckCopy = QStringLiteral("/tmp/pkgProductCheck.ini");
// The runtime updater of the package, relative to the package root.
const QString kRuntimeUpdater = QStringLiteral("opxupdateu/helper/opxupdateu_helper.bin");
// Left by an interrupted download; a finished one removes it.
const QString kDownloadFlag = QStringLiteral("/kavo_download_flag");

// The data areas a project may ask to clear, in the order they are cleared.
struct DataArea
{
    bool ProjectDownload::*flag;
    int mask;
    int before;
    int success;
    int failure;
};

constexpr DataArea kDataAreas[] = {
    {&ProjectDownload::m_clearRecipe, 1, 2069, 2070, 2071},
    {&ProjectDownload::m_clearHistory, 2, 2072, 2073, 2074},
    {&ProjectDownload::m_clearAlarm, 4, 2075, 2076, 2077},
    {&ProjectDownload::m_clearInitValue, 8, 2078, 2079, 2080},
};

} // namespace

void dlgDownLoad::setPackageRoot(const QString& root)
{
    m_packageRoot = root;
    listProjects();
}

QString dlgDownLoad::packageRoot() const
{
    if (!m_packageRoot.isEmpty())
        return m_packageRoot;
    // The executable lies in "opxupdateu" directly below the package root.
    QString dir = QCoreApplication::applicationDirPath();
    if (dir.endsWith(QLatin1Char('/')))
        dir.chop(1);
    return dir.left(dir.lastIndexOf(QLatin1Char('/')));
}

bool dlgDownLoad::isCountingDown() const
{
    return m_restartTimer->isActive();
}

void dlgDownLoad::failWith(const QString& text)
{
    resetUpgrageUI(text);
    updateFinish(false);
}

void dlgDownLoad::failPackage()
{
    // The package cannot be trusted: there is nothing to reboot for, so the
    // restart button quits instead.
    ui->btnRestart->setText(msg(2010));
    failWith(msg(2020));
}

void dlgDownLoad::failDownload(int id)
{
    resetUpgrageUI(msg(id));
    setWindowTitle(m_projectName);
    updateFinish(false);
}

bool dlgDownLoad::endOnStop()
{
    if (!m_stop)
        return false;
    setWindowTitle(m_projectName);
    setBntEnable(true, false, true);
    updateFinish(false);
    return true;
}

void dlgDownLoad::runSequence()
{
    m_restartCount = 10;
    m_stop = false;
    m_updateApp = false;
    m_loadState = 1;
    m_platformCode.clear();
    m_variantName.clear();
    m_variantDir.clear();
    m_panelProduct = defaultProduct;
    m_packageProduct = defaultProduct;
    // In resume mode the start-up code has taken the buttons away already.
    if (!m_resumeMode)
        setBntEnable(false, true, false);
    repaint();
    if (m_startTimer->isActive())
        m_startTimer->stop();
    if (m_restartTimer->isActive())
        m_restartTimer->stop();

    // From here on every package path is relative to the package root.
    const QString root = packageRoot();
    AccessFile::changeWorkingDir(root.toUtf8().constData());
    setWindowTitle(m_projectName);

    setTextEditContent(msg(2011));

    const QString libraryFile = panelPlatformFile();
    if (libraryFile.isEmpty()) {
        setTextEditContent(msg(2012));
        failPackage();
        return;
    }

    const int platformCode = Kavo_GetPlatform_Arch(libraryFile.toUtf8().constData());
    if (platformCode == -1) {
        setTextEditContent(msg(2013));
        failPackage();
        return;
    }
    m_platformCode = QString::number(platformCode);
    m_variantName = variantOfPlatform(m_platformCode);

    // Which of the two variant trees the package has is not matched against
    // the panel: the panel's own variant name is used when either exists.
    const QString projectDir = QStringLiteral("./") + m_projectName;
    if (QFileInfo(projectDir + QStringLiteral("/v5")).isDir() || QFileInfo(projectDir + QStringLiteral("/v7")).isDir())
        m_variantDir = m_variantName;

    const QString prefix = packagePrefix();
    const QString projectIni = prefix + QStringLiteral("project.ini");
    if (!QFileInfo::exists(projectIni) || !QFileInfo::exists(prefix + QStringLiteral("version.ini"))) {
        setTextEditContent(msg(2014));
        failPackage();
        return;
    }

    // A description that lacks its global keys in the clear is taken to be
    // scrambled.
    std::unique_ptr<FreshCopy> clearDescription;
    QString descriptionPath = projectIni;
    bool usable = false;
    {
        QSettings plain(projectIni, QSettings::IniFormat);
        plain.setIniCodec("UTF-8");
        usable = projectIniNodeExist(&plain);
    }
    if (!usable) {
        const QString clearCopy = platform::panelPath(s_projectIniDecrypt);
        if (QSettingsFactory::decryptFile(projectIni, clearCopy, CRYPT_NO_MARK)) {
            clearDescription = std::make_unique<FreshCopy>(clearCopy);
            descriptionPath = clearDescription->path();
            QSettings clear(descriptionPath, QSettings::IniFormat);
            clear.setIniCodec("UTF-8");
            usable = projectIniNodeExist(&clear);
        }
    }
    if (!usable) {
        setTextEditContent(msg(2120));
        failPackage();
        return;
    }

    const bool parsed = parseIniFile(descriptionPath);
    clearDescription.reset();
    if (!parsed || !checkFileCRC(BEFORE_DOWNLOAD)) {
        failPackage();
        return;
    }

    setTextEditContent(msg(2021));
    setTextEditContent(msg(2112));
    int hardwareError = 0;
    if (!checkHardware(hardwareError)) {
        failWith(msg(2113).arg(QString::number(hardwareError), m_packageProduct));
        return;
    }
    setTextEditContent(msg(2114));

    setTextEditContent(msg(2117));
    const bool runtimeSound = checkAppIntegrity(INSTALLED_APP, Kavo_GetDirectory(0));
    // A stop while md5sum ran says nothing about the runtime.
    if (endOnStop())
        return;
    setTextEditContent(msg(2118));

    if (!runtimeSound) {
        // Only a package that can update the runtime may offer to, and only an
        // operator may accept: an unattended download never does.
        if (m_directMode || !kavoAppExit()
            || !askYesNo(QuestionIcon::Question, msg(2034), msg(2116))) {
            failWith(msg(2115));
            return;
        }
        m_updateApp = true;
    } else if (!m_directMode && !isUpdateAppCheck()) {
        updateFinish(false);
        return;
    }

    if (m_updateApp) {
        const QString runtimeDir = root + QLatin1Char('/') + m_projectName + QLatin1Char('/') + m_packageProduct
                                   + QLatin1Char('/') + m_variantName + QStringLiteral("kavo_app/");
        if (!checkAppIntegrity(PACKAGE_APP, runtimeDir.toUtf8().constData())) {
            if (endOnStop())
                return;
            failWith(msg(2040));
            return;
        }

        const QString productCheck = platform::panelPath(kProductCheckCopy);
        if (QFileInfo::exists(productCheck))
            QFile::remove(productCheck);
        if (!QSettingsFactory::decryptFile(runtimeDir + QStringLiteral("/update.ini"), productCheck,
                                           CRYPT_WITH_MARK)) {
            failWith(msg(2041));
            return;
        }
        QString runtimeProduct = defaultProduct;
        {
            const FreshCopy copy(productCheck);
            QSettings description(copy.path(), QSettings::IniFormat);
            description.setIniCodec("UTF-8");
            const QString productKey = QStringLiteral("/PREPARE/product");
            if (description.contains(productKey)) {
                runtimeProduct = description.value(productKey).toString();
                if (runtimeProduct.isEmpty()) {
                    failWith(msg(2041));
                    return;
                }
            }
        }
        if (runtimeProduct != m_packageProduct) {
            failWith(msg(2042));
            return;
        }

        // The updater writes on the panel: a stop asked for until now keeps it
        // from starting.
        if (endOnStop())
            return;
        // The updater replaces the runtime in its own process and starts this
        // package again in resume mode. This run goes on with the project
        // regardless: the updater takes over the panel when it is ready.
        const QStringList arguments = {
            QStringLiteral("-project %1 %2").arg(root + QLatin1Char('/'), m_projectName),
            QStringLiteral("-product ") + m_packageProduct,
            QStringLiteral("-lanID ") + m_lanId,
        };
        if (QProcess::startDetached(root + QLatin1Char('/') + kRuntimeUpdater, arguments)) {
            repaint();
            updateFinish(true);
            close();
        }
    }

    setTextEditContent(msg(2022));
    if (m_panelProduct.compare(m_packageProduct, Qt::CaseInsensitive) != 0) {
        failWith(msg(2109).arg(m_panelProduct, m_packageProduct, m_packageProduct));
        return;
    }

    setTextEditContent(msg(2028));
    setTextEditContent(msg(2035));
    if (!checkVersion()) {
        updateFinish(false);
        return;
    }
    setTextEditContent(msg(2039));

    setWindowTitle(msg(2043).arg(m_projectName));
    setTextEditContent(msg(2044));
    if (!isDiskSpaceEnough()) {
        failDownload(2045);
        return;
    }

    // The checks behind us let the stop button through without testing its
    // flag. Every step from here on deletes or writes on the panel, so a stop
    // is honoured before each of them and ends the run with the panel as it
    // stands, instead of being taken for a failure of the step.
    if (endOnStop())
        return;
    // No reboot from the dialog from the first deletion until the run has
    // ended: the panel's files are being deleted, copied, checked and its data
    // areas cleared. The flag is dropped however the run ends.
    m_replacing = true;
    const auto replaced = qScopeGuard([this] { m_replacing = false; });

    if (!checkUserFileArea()) {
        if (endOnStop())
            return;
        failDownload(2049);
        return;
    }
    setTextEditContent(msg(2050));

    // From here on a failure leaves the panel without a complete project:
    // whatever has been written is synced before the failure is told.
    if (endOnStop())
        return;
    if (!removeOldProjectFiles()) {
        sync();
        failDownload(2052);
        return;
    }

    setTextEditContent(msg(2053));
    if (endOnStop())
        return;
    if (!updateProjectFile()) {
        syncKeepingScreenAlive();
        failDownload(2055);
        return;
    }
    syncKeepingScreenAlive();

    setTextEditContent(msg(2056));
    if (!checkFileCRC(AFTER_DOWNLOAD)) {
        failDownload(2057);
        return;
    }
    setTextEditContent(msg(2058));

    // A data area that cannot be cleared is told but does not undo a
    // download that has already succeeded.
    if (endOnStop())
        return;
    for (const DataArea& area : kDataAreas) {
        if (!(this->*area.flag))
            continue;
        setTextEditContent(msg(area.before));
        const bool failed = (Kavo_DelSaveData(area.mask, 0) & area.mask) != 0;
        setTextEditContent(msg(failed ? area.failure : area.success));
    }

    std::remove((QString::fromUtf8(Kavo_GetDirectory(0)) + kDownloadFlag).toUtf8().constData());
    sync();

    resetUpgrageUI(msg(2059) + QLatin1Char('\n'));
    ui->btnStart->setEnabled(false);
    setWindowTitle(m_projectName);
    updateFinish(true);
    m_restartTimer->start(kCountdownIntervalMs);
}
