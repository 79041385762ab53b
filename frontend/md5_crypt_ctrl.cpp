#include "frontend/md5_crypt_ctrl.h"

#include "app/constants.h"
#include "platform/kavo_api.h"
#include "platform/platform.h"

#include <QCryptographicHash>
#include <QFile>
#include <QSettings>
#include <QVariant>

#include <cstring>

md5_crypt_ctrl* md5_crypt_ctrl::m_md5Crypt = nullptr;
char md5_crypt_ctrl::m_hexText[65] = {};

md5_crypt_ctrl* md5_crypt_ctrl::GetInstance()
{
    // Never freed: the start note and the password dialog may ask it up to the
    // last moment of the process.
    if (m_md5Crypt == nullptr)
        m_md5Crypt = new md5_crypt_ctrl;
    return m_md5Crypt;
}

md5_crypt_ctrl::~md5_crypt_ctrl() = default;

bool md5_crypt_ctrl::CryptInit()
{
    m_initialised = true;

    const QString confPath = platform::panelPath(PWD_CONF_PATH);
    if (!QFile::exists(confPath))
        return false;

    // The settings program rewrites the configuration in place; reading it
    // only under the shared lock file means never seeing it half-written.
    TOOL::COMMON::FileLock lock(QFile::encodeName(platform::panelPath(appCfgLckPath)).constData());
    if (lock.fd() == -1)
        return false;
    {
        TOOL::COMMON::FileLocker locker(lock);
        QSettings settings(confPath, QSettings::IniFormat);
        settings.setIniCodec("UTF-8");
        m_digest = settings.value(PWD_ENCRYPT_STR).toString().toLatin1().toStdString();
    }
    return !m_digest.empty();
}

bool md5_crypt_ctrl::matches(const QByteArray& typed) const
{
    if (m_digest.empty())
        return false;
    QByteArray raw = QCryptographicHash::hash(typed, QCryptographicHash::Md5);
    const char* hex = hexstr(reinterpret_cast<unsigned char*>(raw.data()), raw.size());
    const std::size_t length = std::strlen(hex);
    // Case matters: the settings program always writes lower case, so an
    // upper-case digest is not a digest it wrote.
    return length == m_digest.size() && std::memcmp(hex, m_digest.data(), length) == 0;
}

char* md5_crypt_ctrl::hexstr(unsigned char* data, int len)
{
    static const char digits[] = "0123456789abcdef";
    const int count = len < 0 ? 0 : (len > 32 ? 32 : len);
    for (int i = 0; i < count; ++i) {
        m_hexText[2 * i] = digits[data[i] >> 4];
        m_hexText[2 * i + 1] = digits[data[i] & 0x0f];
    }
    m_hexText[2 * count] = '\0';
    return m_hexText;
}
