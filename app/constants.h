// The package's well-known paths, file names, INI keys and product names.
//
// Each stands here once, under its own name; modules join them with
// directories by plain concatenation. Paths that begin with "/" and are
// appended to a directory already carry their separator. Panel-side absolute
// paths still go through platform::panelPath() where they are used.
#pragma once

#include <QString>

// Start-up: the display server copied from the stick when none answers.
inline const QString serverTmpPath = QStringLiteral("/tmp/qwsserver");

// Language choice: the panel's language setting beside its project.
inline const QString lan_setup_ini_name = QStringLiteral("/lan_setup.ini");

// Access password: the panel configuration, the key of the stored digest and
// the lock file that guards reading it.
inline const QString PWD_CONF_PATH = QStringLiteral("/usr/kavo_app/config/kavo_app_conf.ini");
inline const QString PWD_ENCRYPT_STR = QStringLiteral("/SECURITY/license");
inline const QString appCfgLckPath = QStringLiteral("/tmp/kavo_app_conf.lck");

// The scrambled-file reader and the download module each name a clear copy of
// a runtime package description; both spellings name the same panel file.
namespace configfile {
inline const QString strDecryptFilePath = QStringLiteral("//tmp//update.ini");
}
namespace download {
inline const QString strDecryptFilePath = QStringLiteral("/tmp/update.ini");
}

// Package layout and products.
inline const QString downFileDir = QStringLiteral("DownLoadFile");
inline const QString defaultProduct = QStringLiteral("KavoPro");
inline const QString cpuCountChectProduct = QStringLiteral("KavoStu");
inline const QString s_platform_v5 = QStringLiteral("5");
inline const QString s_platform_v7 = QStringLiteral("10");
inline const QString s_contextDat = QStringLiteral("context.dat");
inline const QString s_opxupdateuDir = QStringLiteral("opxupdateu");

// Keys of the project description.
inline const QString s_opxPlatformNode = QStringLiteral("/GLOBAL/OPXPlatform");
inline const QString s_opxNameNode = QStringLiteral("/GLOBAL/OPXName");
inline const QString s_fileNumNode = QStringLiteral("/GLOBAL/FILENUM");
inline const QString s_versionNode = QStringLiteral("/GLOBAL/VERSION");

// Clear copy of a scrambled project description.
inline const QString s_projectIniDecrypt = QStringLiteral("/tmp/project_decrypt.ini");

// The result report's file name.
inline const QString logName = QStringLiteral("pro_update_result.log");

// Dialog sizes: a row of four (width, height) pairs per screen class, small
// screens (device width <= 1024) first, then zeroed rows.
constexpr int arrayWinSize[4][4][2] = {
    {{397, 173}, {432, 180}, {450, 300}, {432, 300}},
    {{550, 220}, {550, 180}, {700, 480}, {700, 480}},
    {},
    {},
};

// Captions of the password dialog's on-screen keyboard, in table order.
inline const char* const keyText[40] = {
    "1", "2", "3", "4", "5", "6", "7", "8", "9", "0",
    "A", "B", "C", "D", "E", "F", "G", "H", "I", "J", "K", "L", "M",
    "N", "O", "P", "Q", "R", "S", "T", "U", "V", "W", "X", "Y", "Z",
    "Cap", "Del", "<--", "确定",
};
