// What the program `benchmarks` adds when it starts; what needs no board adds itself.

#ifndef BH_BENCH_BENCHES_H_
#define BH_BENCH_BENCHES_H_

void RegisterPing();
void RegisterDiscover();

#endif  // BH_BENCH_BENCHES_H_
