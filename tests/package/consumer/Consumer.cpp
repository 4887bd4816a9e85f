#include <libQuorCore/libQuorCore.h>

int main()
{
    return 0;
}
