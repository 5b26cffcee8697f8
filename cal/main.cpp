#include "cal/startup.h"

int main(int argc, char** argv)
{
    return tarvo_main(argc, argv);
}
