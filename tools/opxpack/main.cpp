// opxpack: builds a USB stick with the package and a project for integrators
// who try the package on a PC before they take it to the panel.
#include "tools/opxpack/packtool.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("opxpack"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return opxpack::run(QCoreApplication::arguments(), QCoreApplication::applicationDirPath(), out, err);
}
