// The download of a project from the stick into the panel, without its screen.
//
// ProjectDownload holds the state of one download dialog (file list, platform,
// products, hardware needs, clear flags) and the check and copy routines that
// the download sequence runs, in the order the sequence calls them:
//
//   package description   projectIniNodeExist, parseIniFile       packagedescription.cpp
//   platform, versions    panelPlatformFile, findPlatformFile,
//                         checkHardware, formatVersion,
//                         checkVersion                            compatibility.cpp
//   runtime update        kavoAppExit, isUpdateAppCheck           runtimeupdate.cpp
//   integrity             CalcFileCrc, checkFileCRC,
//                         checkAppIntegrity                       integrity.cpp
//   disk space            isDiskSpaceEnough, checkUserFileArea    diskspace.cpp
//   replacement           removeDir, removeOldProjectFiles,
//                         updateProjectFile,
//                         syncKeepingScreenAlive                  replacement.cpp
//
// The routines report through four channels that the download dialog provides:
// a progress line in the text pane, the failure report, the button states and a
// yes/no question. Each routine returns true to go on; on false it has reported
// its own failure (or a stop was requested) and the caller adds at most a final
// failure line. Package paths are relative to the working directory, which the
// sequence makes the package root on the stick.
#pragma once

#include "download/accessfile.h"
#include "text/multilingualmanager.h"

#include <QElapsedTimer>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>
#include <string>
#include <sys/stat.h>

class QSettings;

// One package file to copy.
struct FILE_INFO
{
    QString fileName; // as listed; may begin with "DownLoadFile/"
    QString crc;      // CRC-32 as upper-case hexadecimal without leading zeros; empty: size test only
    uint32_t size = 0;
    QString desPath;  // destination directory on the panel, ending in "/"
    QString srcPath;  // source directory in the package: "./" + project + "/" + variant subdirectory
};

// A version triple, compared field by field as signed integers.
struct stVersionInfo
{
    int32_t major = 0;
    int32_t minor = 0;
    int32_t build = 0;
};

bool operator==(const stVersionInfo& a, const stVersionInfo& b);
bool operator<(const stVersionInfo& a, const stVersionInfo& b);

// Where checkFileCRC looks for the listed files.
enum downLoadStatus {
    BEFORE_DOWNLOAD = 1, // in the package
    AFTER_DOWNLOAD = 2,  // on the panel, after the copy
};

// Which runtime checkAppIntegrity checks.
enum checkPath {
    INSTALLED_APP = 1, // the runtime installed on the panel
    PACKAGE_APP = 2,   // the runtime copy the package carries
};

class ProjectDownload
{
public:
    ProjectDownload(const QString& dataDir, const QString& lanId);
    virtual ~ProjectDownload();

    // --- Package description files -----------------------------------------

    // True when the four global keys are all present (presence only).
    bool projectIniNodeExist(QSettings* settings);

    // Reads the project description at `path` and the package's version.ini:
    // file list (one entry per FILE group the description holds, up to its
    // FILENUM), hardware needs, clear flags, package product. False on a stop
    // request or after reporting a platform mismatch (2015), no files (2016)
    // or an empty product (2023).
    bool parseIniFile(const QString& path);

    // --- Platform and version compatibility ---------------------------------

    // The panel's C library file, or "" when none is found. Static: the runtime
    // updater must find the very file whose platform the download checked.
    static QString panelPlatformFile();

    // First regular file in `dir` matching "*.so*" whose name begins with "libc",
    // in name order ignoring case; "" when there is none.
    static QString findPlatformFile(const QString& dir);

    // The variant directory of a panel platform code: "v7/" for 10, "v5/" for
    // 5, "" for any other.
    static QString variantOfPlatform(const QString& platformCode);

    // The runtime version a runtime description names: the first word of
    // "/PREPARE/version" ("7.2.1 build3" gives "7.2.1"); "" when the key is
    // missing or blank.
    static QString runtimeVersion(const QString& iniPath);

    // The hardware conditions of the project description: disk capacity, platform
    // list, processor cores. False with `errorCode` 0 (capacity unknown), -1
    // (disk too small), -2 (platform not listed) or -3 (too few cores). Reports
    // nothing.
    bool checkHardware(int& errorCode);

    // Parses a dotted version ("7.2.1", "7.2.1.3") into `version`; fields
    // without a text keep their values. Each part is read as the panel's
    // 32-bit strtol reads it, so an oversized part stops at the int32 limit.
    void formatVersion(char* text, stVersionInfo& version);

    // The project/runtime version rule. False after reporting 2036, 2037 or
    // 2038, or silently on a stop request.
    bool checkVersion();

    // --- Runtime-environment update decision --------------------------------

    // True when the package carries a runtime updater for the package product.
    bool kavoAppExit();

    // Decides whether the runtime is updated first (m_updateApp), asking the
    // operator where a choice exists. False when the operator cancelled (2026
    // reported).
    bool isUpdateAppCheck();

    // --- Integrity verification ---------------------------------------------

    // CRC-32 of the file at `path` into `crc`; false (crc 0) when it cannot be read.
    bool CalcFileCrc(const std::string& path, unsigned int& crc);

    // Size and CRC-32 of every listed file, in the package or on the panel.
    bool checkFileCRC(downLoadStatus status);

    // A runtime tree against its MD5 list with the system's md5sum. The screen
    // stays alive while md5sum runs; a stop ends the check with false and no
    // report.
    bool checkAppIntegrity(checkPath which, const char* dir);

    // --- Disk space ---------------------------------------------------------

    // True when the new project fits the project area.
    bool isDiskSpaceEnough();

    // The user file area test: clears the area when the project asks and there
    // is room after clearing, leaving it empty but present. False when the area
    // is too small, its file system cannot be asked, clearing fails (2048
    // reported; the caller reports 2049), or a stop came in before the clearing.
    bool checkUserFileArea();

    // --- Project replacement ------------------------------------------------

    bool removeDir(const QString& path);
    bool removeOldProjectFiles();
    bool updateProjectFile();
    // The system's sync() after the copy, with the screen alive while the disk
    // writes what the copy left in the system's buffers.
    void syncKeepingScreenAlive();

    // --- State --------------------------------------------------------------

    QVector<FILE_INFO> m_fileList;
    bool m_stop = false;
    QString m_dataDir;          // the panel's project directory (Kavo_GetDirectory(3))
    bool m_clearRecipe = false;
    bool m_clearHistory = false;
    bool m_clearAlarm = false;
    bool m_clearInitValue = false;
    bool m_clearUserDir = false;
    QString m_projectName = QStringLiteral("project");
    bool m_resumeMode = false;
    bool m_directMode = false;
    bool m_updateApp = false;
    int m_loadState = 0;        // 0 idle, 1 sequence running, 2 finished
    QString m_platformCode;     // decimal Kavo_GetPlatform_Arch result
    QString m_variantDir;       // variant subdirectory used in package paths
    QString m_variantName;      // "v7/", "v5/" or ""
    QString m_panelProduct;
    QString m_packageProduct;
    QString m_lanId;
    QString m_diskCapacity;     // MiB the project needs
    QStringList m_platformList; // platform codes the project runs on
    QString m_cpuCore;          // processor cores the project needs

    // The package prefix: "./" + project + "/" + variant subdirectory.
    QString packagePrefix() const;

    // A listed file's name on the panel: user files lie directly under their
    // destination, without the package's "DownLoadFile" and the character
    // behind it.
    static QString panelName(const QString& fileName);
    // Where a listed file goes on the panel: its destination directory and its
    // panel name. A name whose ".." would leave a simulated panel gives a path
    // that cannot be written.
    static QString destinationPath(const FILE_INFO& info);

protected:
    // Processes pending events once kEventIntervalMs have passed since they
    // last were, so that the screen stays alive and the stop button works
    // during long reading; true once a stop has been asked for.
    bool keepScreenAlive();
    static constexpr int kEventIntervalMs = 10;
    QElapsedTimer m_sinceEvents;

    // A destination that updateProjectFile found in place, as it was then.
    struct InPlaceFile
    {
        struct stat identity;
        unsigned int crc;
    };
    // Remembers the CRC-32 just computed of a file left in place.
    void rememberInPlace(const QString& path, unsigned int crc);
    // The remembered CRC-32 of `path`, when it is still the file measured.
    bool inPlaceCrc(const QString& path, unsigned int& crc) const;
    QHash<QString, InPlaceFile> m_inPlace;

    enum class QuestionIcon { Information, Question };

    // A progress line in the text pane; keeps the screen alive.
    virtual void setTextEditContent(const QString& text) = 0;
    // The failure report: buttons reset, line appended.
    virtual void resetUpgrageUI(const QString& text) = 0;
    // Start, stop and restart button states.
    virtual void setBntEnable(bool start, bool stop, bool restart) = 0;
    // A modal yes/no box; true only for Yes.
    virtual bool askYesNo(QuestionIcon icon, const QString& title, const QString& text) = 0;
};
