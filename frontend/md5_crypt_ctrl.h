// The holder of the panel's access-password digest.
//
// The panel's settings program keeps the access password as the lower-case
// hexadecimal MD5 digest of its bytes under "/SECURITY/license" of the panel
// configuration. This process-wide holder re-reads that digest on demand and
// compares typed passwords with it; it knows nothing of screens, so the
// password dialog (PwdEntryDialog) and the start note both use it.
#pragma once

#include <QByteArray>

#include <string>

class md5_crypt_ctrl
{
public:
    // The single instance, created on the first call and kept for the life of
    // the process. GUI thread only: the first call is not guarded.
    static md5_crypt_ctrl* GetInstance();

    virtual ~md5_crypt_ctrl();
    md5_crypt_ctrl(const md5_crypt_ctrl&) = delete;
    md5_crypt_ctrl& operator=(const md5_crypt_ctrl&) = delete;

    // Reads the stored digest from the panel configuration under the
    // configuration lock, replacing the one held. True when a non-empty digest
    // was read; false when the configuration file is missing, the lock file
    // cannot be opened or no digest is stored (the held digest then stays as it
    // was when the file or the lock is missing, and becomes empty otherwise).
    bool CryptInit();

    // True when the MD5 digest of `typed`, in lower-case hex, equals the held
    // digest byte for byte. An empty held digest never matches.
    bool matches(const QByteArray& typed) const;

    // The digest held since the last CryptInit (empty before the first).
    const std::string& digest() const { return m_digest; }

    // True once CryptInit has run.
    bool isInitialised() const { return m_initialised; }

    // Writes the first `len` bytes of `data` as lower-case hex into one static
    // buffer and returns it, zero-terminated: 32 characters for a 16-byte MD5
    // digest. Input beyond 32 bytes is left out (the buffer holds 64 digits);
    // a negative length gives "". The buffer is shared by all calls: the text
    // is valid until the next call.
    static char* hexstr(unsigned char* data, int len);

protected:
    md5_crypt_ctrl() = default;

private:
    static md5_crypt_ctrl* m_md5Crypt;
    // 32 hex digits of a digest and the terminating zero.
    static char m_hexText[65];

    std::string m_digest;
    bool m_initialised = false;
};
