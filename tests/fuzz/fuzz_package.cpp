// The package description: project.ini and version.ini of a project
// directory on the stick, read up to the file list, the clear flags and the
// hardware needs. Input: project.ini, then version.ini.
#include "fuzzsupport.h"
#include "recordingdownload.h"

#include <QDir>
#include <QSettings>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QList<QByteArray> files = fuzz::files(fuzz::bytes(data, size), 2);
    const QString project = fuzz::freshPath(QStringLiteral("p"));
    fuzz::writeFile(project + QStringLiteral("/project.ini"), files[0]);
    fuzz::writeFile(project + QStringLiteral("/version.ini"), files[1]);

    RecordingDownload download;
    download.m_projectName = QDir(project).dirName();
    download.m_platformCode = QStringLiteral("10");
    {
        QSettings ini(project + QStringLiteral("/project.ini"), QSettings::IniFormat);
        download.projectIniNodeExist(&ini);
    }
    if (download.parseIniFile(project + QStringLiteral("/project.ini"))) {
        for (const FILE_INFO& info : qAsConst(download.m_fileList)) {
            ProjectDownload::panelName(info.fileName);
            ProjectDownload::destinationPath(info);
        }
        int error = 0;
        download.checkHardware(error);
    }

    QDir(project).removeRecursively();
    return 0;
}
