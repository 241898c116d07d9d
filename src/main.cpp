// main.cpp - the executable's entry; the program lives in quorda_crec.cpp.
#include "quorda_crec.h"

int main(int argc, char** argv)
{
    return quorda_crec_main(argc, argv);
}
