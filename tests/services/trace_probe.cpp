// Writes a few trace records with no context, for the environment test.
#include "qxlayer.h"

int main() {
    qxu_init_trace(nullptr, "probe", 5);
    qxu_print_trace(nullptr, "probe", 4, "verdict %d\n", 7);
    qxu_print_trace(nullptr, "qxcrl_Load", 1, qx0249trc, "R_CRL_from_binary", 10005);
    qxu_exit_trace(nullptr, "probe", 5);
    return 0;
}
