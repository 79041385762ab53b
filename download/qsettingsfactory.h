// Scrambled configuration files.
//
// Some package description files are stored scrambled byte by byte (rotate left
// by 3, then XOR 0x6B). Before any of them is read as an INI file it is turned
// into a clear copy, which is then read with QSettings. The producer side
// (encryptFile) is used by the package tools that build sticks.
#pragma once

#include <QString>

enum CRYPT_TYPE {
    CRYPT_WITH_MARK = 0, // the clear content must carry "#" as its fourth byte
    CRYPT_NO_MARK = 1,   // no mark test
};

class QSettingsFactory
{
public:
    // Writes the clear form of `source` to `target` (truncated). False when a
    // file cannot be opened or written or, for an even `type`, the first
    // chunk's fourth clear byte is not "#" (the target is then left empty). A
    // short read ends the conversion with true. A link standing at `target` is
    // not followed: the conversion then fails and the link's file is untouched.
    // A missing source leaves `target` as it was.
    static bool decryptFile(const QString& source, const QString& target, CRYPT_TYPE type);

    // Writes the scrambled form of `source` to `target`: the inverse transform.
    static bool encryptFile(const QString& source, const QString& target);

    static unsigned char decryptByte(unsigned char b);
    static unsigned char encryptByte(unsigned char b);
};

// A private copy of a clear copy, for reading with QSettings, and the end of
// both: when it goes, the clear copy it was made from goes too, so that no
// clear text of a scrambled file stays behind once it has been read.
//
// QSettings keeps what it has read from a path for the life of the process and
// trusts it again while the file's size and time stamp look unchanged. The
// clear copies are rewritten at the same paths by every run, so a second
// description of the same size, unscrambled within the same time stamp, would
// be read as the first one. A path that no QSettings has seen before is always
// read from the file.
class FreshCopy
{
public:
    explicit FreshCopy(const QString& path);
    ~FreshCopy();
    FreshCopy(const FreshCopy&) = delete;
    FreshCopy& operator=(const FreshCopy&) = delete;

    // The path to read: the private copy, or the clear copy itself when no
    // copy could be made.
    QString path() const { return m_path; }

private:
    const QString m_original;
    QString m_path;
};
