#include "download/projectdownload.h"

#include "app/constants.h"
#include "text/multilingualmanager.h"

bool operator==(const stVersionInfo& a, const stVersionInfo& b)
{
    return a.major == b.major && a.minor == b.minor && a.build == b.build;
}

bool operator<(const stVersionInfo& a, const stVersionInfo& b)
{
    if (a.major != b.major)
        return a.major < b.major;
    if (a.minor != b.minor)
        return a.minor < b.minor;
    return a.build < b.build;
}

ProjectDownload::ProjectDownload(const QString& dataDir, const QString& lanId)
    : m_dataDir(dataDir)
    , m_panelProduct(defaultProduct)
    , m_packageProduct(defaultProduct)
    , m_lanId(lanId)
{
}

ProjectDownload::~ProjectDownload() = default;

QString ProjectDownload::packagePrefix() const
{
    return QStringLiteral("./") + m_projectName + QLatin1Char('/') + m_variantDir;
}

