// Texts of `ostrel inspect`.
#include "Ostrel/Localization.h"

namespace Ostrel {
namespace {

constexpr LocalizedText strings[] = {
    // key, English, French, German, Spanish, Portuguese
    {"inspect.bytes", "bytes", "octets", "Bytes", "bytes", "bytes"},
    {"inspect.kindGuessed", "guessed", "deviné", "erraten", "deducido", "deduzido"},
    {"inspect.reading", "What a live session reads (newest 120000 bytes)",
     "Ce que lit une session en cours (120000 derniers octets)",
     "Was eine laufende Sitzung liest (letzte 120000 Bytes)",
     "Lo que lee una sesión en curso (últimos 120000 bytes)",
     "O que uma sessão ativa lê (últimos 120000 bytes)"},
    {"inspect.tailCut",
     "The window starts inside a character: a live session reads nothing until the file grows.",
     "La fenêtre commence au milieu d'un caractère : une session ne lit rien avant que le fichier grandisse.",
     "Das Fenster beginnt mitten in einem Zeichen: eine Sitzung liest nichts, bis die Datei wächst.",
     "La ventana empieza en medio de un carácter: una sesión no lee nada hasta que el archivo crezca.",
     "A janela começa no meio de um caractere: uma sessão não lê nada até o arquivo crescer."},
    {"inspect.nothingRead", "Nothing that the workspace reads.", "Rien que l'espace de travail lise.",
     "Nichts, was der Arbeitsbereich liest.", "Nada que el espacio de trabajo lea.",
     "Nada que o espaço de trabalho leia."},
    {"inspect.model", "Model", "Modèle", "Modell", "Modelo", "Modelo"},
    {"inspect.context", "Context", "Contexte", "Kontext", "Contexto", "Contexto"},
    {"inspect.phase", "Phase", "Phase", "Phase", "Fase", "Fase"},
    {"inspect.phase.running", "running", "en cours", "läuft", "en curso", "em execução"},
    {"inspect.phase.awaitingApproval", "awaiting approval", "attend une approbation", "wartet auf Freigabe",
     "espera aprobación", "aguarda aprovação"},
    {"inspect.phase.turnEnded", "turn ended", "tour terminé", "Zug beendet", "turno terminado",
     "turno encerrado"},
    {"inspect.permissionMode", "Permission mode", "Mode d'autorisation", "Berechtigungsmodus",
     "Modo de permisos", "Modo de permissão"},
    {"inspect.title", "Title", "Titre", "Titel", "Título", "Título"},
    {"inspect.feed", "Last {} feed entries", "{} dernières entrées du fil", "Letzte {} Einträge",
     "Últimas {} entradas", "Últimas {} entradas"},
    {"inspect.trace", "Tool trace: {} calls, {} files, {} failed, {} running",
     "Outils : {} appels, {} fichiers, {} échecs, {} en cours",
     "Werkzeuge: {} Aufrufe, {} Dateien, {} fehlgeschlagen, {} laufend",
     "Herramientas: {} llamadas, {} archivos, {} fallidas, {} en curso",
     "Ferramentas: {} chamadas, {} arquivos, {} falhas, {} em execução"},
    {"inspect.topTools",
     "Most used:", "Les plus utilisés :", "Am häufigsten:", "Más usadas:", "Mais usadas:"},
    {"inspect.moreFiles", "… and {} more files", "… et {} fichiers de plus", "… und {} weitere Dateien",
     "… y {} archivos más", "… e mais {} arquivos"},
    {"inspect.sensitive", "sensitive file: {} {}", "fichier sensible : {} {}", "sensible Datei: {} {}",
     "archivo sensible: {} {}", "arquivo sensível: {} {}"},
    {"inspect.destructive", "destructive command: {}", "commande destructrice : {}",
     "zerstörerischer Befehl: {}", "comando destructivo: {}", "comando destrutivo: {}"},
    {"inspect.rateLimit", "Rate limit", "Limite de débit", "Ratenlimit", "Límite de uso", "Limite de uso"},
    {"inspect.none", "none", "aucune", "keines", "ninguno", "nenhum"},
    {"inspect.resumesAt", "lifts at {}", "levée à {}", "endet um {}", "se levanta a las {}", "termina às {}"},
    {"inspect.error.unreadable", "cannot read {}", "impossible de lire {}", "{} kann nicht gelesen werden",
     "no se puede leer {}", "não é possível ler {}"},
    {"inspect.error.unknownKind", "cannot tell which agent wrote {}; give --kind claude, codex or gemini",
     "impossible de savoir quel agent a écrit {} ; indiquez --kind claude, codex ou gemini",
     "unklar, welcher Agent {} geschrieben hat; --kind claude, codex oder gemini angeben",
     "no se sabe qué agente escribió {}; indique --kind claude, codex o gemini",
     "não se sabe que agente escreveu {}; indique --kind claude, codex ou gemini"},
};

} // namespace

std::span<const LocalizedText> inspectStrings() {
    return strings;
}

} // namespace Ostrel
