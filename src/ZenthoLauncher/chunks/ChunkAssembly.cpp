#include "chunks/ChunkAssembly.h"

#include "chunks/BuildWriter.h"

void assembleBuild(const ChunkIndex& index, const QHash<QString, ChunkLocation>& locations, const QString& staging) {
    BuildWriter writer(staging, BuildWriter::Start::empty);
    writer.writeFiles(writer.makeTree(index), locations);
    writer.finishFolders();
}
