#include <Tamlo/Tamlo.h>

int main() { return 0; }
