#include "app/ProcessArguments.h"
#include "app/RunModes.h"

int main(int argc, char** argv)
{
    const velnora::ProcessArguments arguments(argc, argv);
    velnora::ProcessArguments::setCurrent(arguments);
    return velnora::RunModes::dispatch(arguments);
}
