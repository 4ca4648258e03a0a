#include "router/service.h"

int main(int argc, char** argv) {
    corvalin::router::Service service;
    return service.start(argc, argv);
}
