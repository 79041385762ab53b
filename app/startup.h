// Process start-up: everything the entry function does before it needs a screen.
//
// The entry (runmodes.h) calls these in a fixed order: UTF-8 as the local codec,
// the argument vector without "-qws", other running copies stopped, the own
// directory from "/proc/self/exe", a display server made reachable; then, with
// the application object in place, the options parsed into StartupOptions, the
// result report path built and the language chosen and loaded. The options
// decide the run mode: interactive, direct download ("-s") or resume after a
// runtime update ("-project").
#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <vector>

namespace startup {

// The executable's name; every process whose command line starts with it is a
// copy of the package.
inline const char* const kPackageExecutableName = "opxupdateu_proj.bin";

// At most this many running copies are stopped at start.
constexpr int kMaxPackageProcesses = 256;

// What start-up learns from the system and the command line. Lives for the
// whole of the entry function.
struct StartupOptions
{
    // Directory of the running executable, without a trailing "/".
    QString exeDir;
    // Byte count readlink() gave for the executable's path.
    int exePathLength = 0;
    // First number of "-project": the runtime updater's result (0 = success).
    int projectResult = -1;
    // Project path of "-project" or "-s".
    QString projectArg;
    // Value of "-p"; after buildReportPath() the result report path itself.
    QString resultDir;
    // Value of "-lanID"; after the language choice the four-digit code in use.
    QString lanId;
    bool haveProject = false;
    bool haveDirect = false;
};

// Makes UTF-8 the codec of the local 8-bit encoding (file names, arguments,
// C strings given to the C library).
void setUtf8Codec();

// A copy of argv without every argument that is exactly "-qws", followed by a
// null pointer; the reduced argument count is size() - 1. The pointers point
// into argv, which must outlive the copy.
std::vector<char*> removeQwsArguments(int argc, char* argv[]);

// Reads the options of one argument into `options`. The argument is tested for
// each option text as a substring, in the order "-project", "-s", "-p",
// "-lanID", so one argument can set several values:
// - "-project": sets haveProject; the text between the first and the second
//   space, as a decimal number, into projectResult (a text that is no number,
//   or an empty one, gives 0); the text after the second space into projectArg
//   (empty without a second space);
// - "-s": sets haveDirect; with a space, the text after the first space into
//   projectArg;
// - "-p": with a space, the text after the first space into resultDir;
// - "-lanID": the second piece of the argument split at " ", when there is
//   one, into lanId.
void parseOption(const QString& argument, StartupOptions& options);

// parseOption() for each argument in order. `arguments` are the command-line
// arguments after the program name, "-qws" not removed.
void parseOptions(const QStringList& arguments, StartupOptions& options);

// The process ids of running copies of the package: the numeric entries of
// `procDir` whose "cmdline" (first 255 bytes) starts with a string whose base
// name is kPackageExecutableName. In directory order, at most `limit`; entries
// that cannot be read are skipped.
std::vector<pid_t> findPackageProcesses(const QString& procDir = QStringLiteral("/proc"),
                                        int limit = kMaxPackageProcesses);

// Sends SIGTERM to every copy findPackageProcesses() finds except this process;
// a failed signal is sent once more. Returns the ids signalled; it does not
// wait for them to end.
std::vector<pid_t> stopOtherCopies();

// The path of the running executable from "/proc/self/exe". Returns the byte
// count readlink() gave and sets `exePath`, or -1 (errno set) on failure.
int readExecutablePath(QString& exePath);

// The directory part of `exePath`: everything before its last "/".
QString directoryOf(const QString& exePath);

// Makes sure a display server answers on the panel's display socket. When the
// first connect fails (the retry interval is never reached), copies
// exeDir + "/qws/qwsserver" to the panel's "/tmp/qwsserver", makes it
// executable and starts it detached with "-qws", without waiting for it.
// Returns true when a server answered, false when the fallback ran (whether or
// not it could start a server).
bool ensureDisplayServer(const QString& exeDir);

// Copies `source` to `target` in 4096-byte blocks. False when a file cannot be
// opened or a write fails (the error text is printed).
bool copyServerBinary(const QString& source, const QString& target);

// The result report path: (resultDir, or exeDir when it is empty) + "/" + logName.
QString buildReportPath(const QString& resultDir, const QString& exeDir);

// A language type as a language code: decimal, zero-padded to four characters
// the way printf's "%04d" pads (12 gives "0012", -5 gives "-005").
QString languageCode(int type);

// The language file of `code` beside the executable: exeDir + "/language/" + code + ".lan".
QString languageFilePath(const QString& exeDir, const QString& code);

// The language code to use. Without `lanId` the panel's "lan_setup.ini" (in
// KAVO_PROJECT_DIR, else "/usr/kavo_app/project") decides through
// "/current_language/type" unless that is missing or -1; with `lanId` it is
// used as given. When that leaves no code or its file is missing, the
// package's own "/tool_language/type" of exeDir + "/config/proUpdateSet.ini"
// decides (0 when absent). Never empty.
QString chooseLanguageCode(const QString& lanId, const QString& exeDir);

// The package's own language: "/tool_language/type" of exeDir +
// "/config/proUpdateSet.ini" (0 when absent) as a language code.
QString toolLanguageCode(const QString& exeDir);

// Chooses the language code, stores it in options.lanId and loads its language
// file over the built-in table. Returns what loading returned.
bool loadLanguage(StartupOptions& options);

} // namespace startup
