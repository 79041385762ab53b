#include "app/runmodes.h"

int main(int argc, char* argv[])
{
    return runmodes::startPackage(argc, argv);
}
