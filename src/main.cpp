/* The entry point alone, so that tests can link everything behind it. */
#include "app/main_bridge.h"

int main(int argc, char **argv)
{
    return bridge_main(argc, argv);
}
