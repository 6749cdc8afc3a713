// Runs a fuzz target's function once on every kept input: the seed corpus and
// the inputs that once broke it. Each folder named on the command line must
// hold at least one file, so that a moved or emptied folder fails the test
// instead of passing with nothing run.

#include "fuzzenvironment.h"

#include <cstdint>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    using FuzzEnvironment::require;
    LLVMFuzzerInitialize(&argc, &argv);
    require(argc > 1, "usage: fuzzreplay_<target> FOLDER...");
    for (int i = 1; i < argc; ++i) {
        const QString folder = QFile::decodeName(argv[i]);
        const QFileInfoList inputs = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden, QDir::Name);
        require(!inputs.isEmpty(), "a folder of inputs is there and holds some", folder);
        for (const QFileInfo &input : inputs) {
            QFile file(input.filePath());
            require(file.open(QIODevice::ReadOnly), "a kept input can be read", input.filePath());
            const QByteArray bytes = file.readAll();
            // Before the run, so that an input that aborts is named.
            std::fprintf(stderr, "input %s (%d bytes)\n", qPrintable(input.filePath()), int(bytes.size()));
            std::fflush(stderr);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
        }
    }
    return 0;
}
