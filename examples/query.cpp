// Prints the title of the programme on air now: query SERVICE-ID

#include <ESGAPI.h>
#include <IESGService.h>

#include <iostream>

int main(int argc, char** argv) {
  FCESGProgramInfo program;
  if (argc == 2 && ESGAPI::GetESGServiceAPI()->GetPresentProgram(argv[1], program)) {
    std::cout << program.Title() << '\n';
    return 0;
  }
  return 1;
}
