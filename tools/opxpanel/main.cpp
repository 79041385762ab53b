// opxpanel: makes a simulated panel for integrators who try the package on a
// PC before they take a stick to the machine.
#include "tools/kit/toolcli.h"
#include "tools/opxpanel/paneltool.h"

int main(int argc, char** argv)
{
    return kit::runTool(argc, argv, QStringLiteral("opxpanel"), opxpanel::run);
}
