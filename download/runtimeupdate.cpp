// The runtime-environment update decision: whether the panel's runtime is to be
// replaced by the copy the package carries before the project is copied.
#include "download/projectdownload.h"

#include "app/constants.h"
#include "download/qsettingsfactory.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QFileInfo>
#include <QSettings>

QString ProjectDownload::runtimeVersion(const QString& iniPath)
{
    QSettings settings(iniPath, QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    const QString value = settings.value(QStringLiteral("/PREPARE/version")).toString().trimmed();
    return value.split(QLatin1Char(' '), Qt::SkipEmptyParts).value(0);
}

bool ProjectDownload::kavoAppExit()
{
    const QString updater =
        QStringLiteral("./") + m_projectName + QLatin1Char('/') + m_packageProduct + QStringLiteral("/opxupdateu.bin");
    return QFileInfo::exists(updater)
           && QFileInfo::exists(QStringLiteral("./opxupdateu/helper/opxupdateu_helper.bin"));
}

bool ProjectDownload::isUpdateAppCheck()
{
    // A package without an updater can never update the runtime, so there is
    // nothing to decide and the flag stays as the sequence set it.
    if (!kavoAppExit())
        return true;

    const QString packageIni = QStringLiteral("./") + m_projectName + QLatin1Char('/') + m_packageProduct
                               + QLatin1Char('/') + m_variantName + QStringLiteral("kavo_app/update.ini");
    const QString clearCopy = platform::panelPath(configfile::strDecryptFilePath);

    QString packageVersion;
    if (QSettingsFactory::decryptFile(packageIni, clearCopy, CRYPT_WITH_MARK)) {
        const FreshCopy copy(clearCopy);
        packageVersion = runtimeVersion(copy.path());
    }

    if (!QFileInfo::exists(packageIni) || packageVersion.isEmpty()) {
        if (askYesNo(QuestionIcon::Information, msg(2030), msg(2031))) {
            m_updateApp = false;
            return true;
        }
        resetUpgrageUI(msg(2026));
        return false;
    }

    QString question;
    if (m_panelProduct.compare(m_packageProduct, Qt::CaseInsensitive) != 0) {
        // A panel of another series must take the package's runtime, whatever
        // the versions say.
        question = msg(2108).arg(m_panelProduct, m_packageProduct + QLatin1Char(' ') + packageVersion);
    } else {
        const QString installedIni = QString::fromUtf8(Kavo_GetDirectory(0)) + QStringLiteral("/update.ini");
        const QString installedVersion =
            QFileInfo::exists(installedIni) ? runtimeVersion(installedIni) : QString();
        if (installedVersion.isEmpty())
            question = msg(2032).arg(packageVersion);
        else
            question = msg(2033).arg(installedVersion, packageVersion);

        // Versions are compared as text, as the packages have always been
        // ordered: "7.10.0" counts as older than "7.9.0".
        if (!(packageVersion > installedVersion)) {
            m_updateApp = false;
            return true;
        }
    }

    m_updateApp = askYesNo(QuestionIcon::Question, msg(2034), question);
    return true;
}
