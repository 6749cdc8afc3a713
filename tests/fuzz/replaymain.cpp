// Runs a fuzz target's function once on every kept input: the seed corpus and
// the inputs that once broke it. Each folder named on the command line must
// hold at least one file, so that a moved or emptied folder fails the test
// instead of passing with nothing run.

#include <QtCore>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FOLDER...\n", argv[0]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QDir folder(QFile::decodeName(argv[i]));
        const QFileInfoList inputs = folder.entryInfoList(QDir::Files | QDir::Hidden, QDir::Name);
        if (inputs.isEmpty()) {
            std::fprintf(stderr, "no inputs in %s (missing or empty folder)\n", argv[i]);
            return 1;
        }
        for (const QFileInfo &input : inputs) {
            QFile file(input.filePath());
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(input.filePath()));
                return 1;
            }
            const QByteArray bytes = file.readAll();
            // Before the run, so that an input that aborts is named.
            std::fprintf(stderr, "input %s (%d bytes)\n", qPrintable(input.filePath()), int(bytes.size()));
            std::fflush(stderr);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return 0;
}
