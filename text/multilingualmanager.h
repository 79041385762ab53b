// The process-wide text table.
//
// Every text the operator sees is looked up here by message id: 1000-1999 texts
// shared by the panel's maintenance tools, 2000-2999 this package's own. The
// table is filled from a language file laid over the built-in default file
// (kBuiltinLanguageFile); start-up picks the language, the start note reloads
// it when the operator changes the language. Code that cannot see the manager
// fetches texts through kavo_process::_func.
#pragma once

#include <QMap>
#include <QString>

#include <functional>

// The built-in default language file (language 0), compiled into the executable.
inline const QString kBuiltinLanguageFile = QStringLiteral(":/new/prefix1/resource/lan/0000.lan");

class MultilingualManager
{
public:
    // The single instance, built on first use and destroyed at exit.
    static MultilingualManager* GetInstance();

    // Empties the table, then fills it from `defaultFile` and lays `languageFile`
    // over it. False (and an empty table) when the language file is missing and
    // the default file is empty or missing as well.
    bool loadMultilingualFile(const QString& languageFile, const QString& defaultFile);

    // The text of `id`; an unknown id gets an empty entry and yields "".
    QString getMultilingualValue(int id);

    // Number of entries, unknown ids asked for included.
    int count() const { return m_texts.size(); }

private:
    MultilingualManager() = default;
    void loadFile(const QString& path);

    QMap<int, QString> m_texts;
};

// Message `id` of the process-wide text table: the lookup every screen and
// routine of the package uses for what it says.
QString msg(int id);

namespace kavo_process {

// Text lookup for code that does not see MultilingualManager; empty until set.
extern std::function<QString(int)> _func;

// Replaces _func by `func`.
void setMulLanguage(std::function<QString(int)> func);

} // namespace kavo_process

// The compiled-in resources (language file, images) of the package's libraries.
// Call once before the first lookup; safe to call again.
void initKavoResources();
