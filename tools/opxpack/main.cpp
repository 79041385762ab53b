// opxpack: builds a USB stick with the package and a project for integrators
// who try the package on a PC before they take it to the panel.
#include "tools/kit/toolcli.h"
#include "tools/opxpack/packtool.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    return kit::runTool(argc, argv, QStringLiteral("opxpack"),
                        [](const QStringList& arguments, QTextStream& out, QTextStream& err) {
                            return opxpack::run(arguments, QCoreApplication::applicationDirPath(), out, err);
                        });
}
