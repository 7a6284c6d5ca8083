#include <benchmark/benchmark.h>
#include "xk/oleauto.h"
static void AllocFree(benchmark::State& s) {
  for (auto _ : s) { BSTR b = SysAllocString("HKEY_LOCAL_MACHINE"); benchmark::DoNotOptimize(b); SysFreeString(b); }
}
BENCHMARK(AllocFree)->Threads(1)->Threads(2);
static void LenOfBstr(benchmark::State& s) {
  BSTR b = SysAllocString("HKEY_LOCAL_MACHINE");
  for (auto _ : s) benchmark::DoNotOptimize(SysStringLen(b));
  SysFreeString(b);
}
BENCHMARK(LenOfBstr)->Threads(1)->Threads(2);
static void LenOfPlain(benchmark::State& s) {
  char plain[] = "HKEY_LOCAL_MACHINE";
  for (auto _ : s) benchmark::DoNotOptimize(SysStringLen(plain));
}
BENCHMARK(LenOfPlain);
static void PutGetBstr(benchmark::State& s) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 1); BSTR v = SysAllocString("1234"); int at[1] = {0};
  for (auto _ : s) { SafeArrayPutElement(psa, at, v); BSTR g; SafeArrayGetElement(psa, at, &g); SysFreeString(g); }
  SysFreeString(v); SafeArrayDestroy(psa);
}
BENCHMARK(PutGetBstr);
static void CopyBstrVector(benchmark::State& s) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, s.range(0)); BSTR v = SysAllocString("identifier");
  for (int i = 0; i < s.range(0); ++i) { int at[1] = {i}; SafeArrayPutElement(psa, at, v); }
  for (auto _ : s) { SAFEARRAY* c; SafeArrayCopy(psa, &c); SafeArrayDestroy(c); }
  SysFreeString(v); SafeArrayDestroy(psa);
}
BENCHMARK(CopyBstrVector)->Arg(100);
