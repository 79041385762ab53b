// A download without a screen: records "text: ...", "fail: ...", "ask: ..." in order.
#pragma once

#include "download/projectdownload.h"

#include <QStringList>

class RecordingDownload : public ProjectDownload
{
public:
    RecordingDownload()
        : ProjectDownload(QString(), QStringLiteral("0"))
    {
    }

    QStringList events;

protected:
    void setTextEditContent(const QString& text) override { events << QStringLiteral("text: ") + text; }
    void resetUpgrageUI(const QString& text) override { events << QStringLiteral("fail: ") + text; }
    void setBntEnable(bool, bool, bool) override { events << QStringLiteral("buttons"); }
    bool askYesNo(QuestionIcon, const QString&, const QString& text) override
    {
        events << QStringLiteral("ask: ") + text;
        return false;
    }
};
