// Texts of the workspace itself: the headless command line and session notices.
#include "Ostrel/Localization.h"

namespace Ostrel {
namespace {

constexpr LocalizedText strings[] = {
    // key, English, French, German, Spanish, Portuguese
    {"pane.draftBusy", "The input box isn't empty or can't be read; nothing was typed.",
     "La zone de saisie n'est pas vide ou illisible ; rien n'a été tapé.",
     "Das Eingabefeld ist nicht leer oder nicht lesbar; es wurde nichts getippt.",
     "El cuadro de entrada no está vacío o no se puede leer; no se escribió nada.",
     "A caixa de entrada não está vazia ou não pode ser lida; nada foi digitado."},
    {"headless.started", "ostrel: running without a view (sessions: {}). Stop with Ctrl-C.",
     "ostrel : exécution sans vue (sessions : {}). Arrêter avec Ctrl-C.",
     "ostrel: läuft ohne Ansicht (Sitzungen: {}). Beenden mit Strg-C.",
     "ostrel: ejecutándose sin vista (sesiones: {}). Detener con Ctrl-C.",
     "ostrel: executando sem visualização (sessões: {}). Parar com Ctrl-C."},
    {"cli.unknownKind", "unknown session kind \"{}\"; use one of: {}",
     "type de session inconnu « {} » ; utilisez l'un de : {}",
     "unbekannte Sitzungsart „{}“; erlaubt sind: {}", "tipo de sesión desconocido «{}»; use uno de: {}",
     "tipo de sessão desconhecido \"{}\"; use um de: {}"},
    {"cli.shellTakesNoCommand", "a shell takes no command; use service:{} to run one",
     "un shell ne prend pas de commande ; utilisez service:{} pour en lancer une",
     "eine Shell nimmt keinen Befehl; service:{} startet einen",
     "un shell no acepta comando; use service:{} para ejecutarlo",
     "um shell não aceita comando; use service:{} para executá-lo"},
    {"cli.startNeedsProject", "--start {} needs a --project before it",
     "--start {} doit être précédé d'un --project", "vor --start {} muss ein --project stehen",
     "--start {} necesita un --project antes", "--start {} precisa de um --project antes"},
    {"cli.promptNeedsStart", "--prompt {} needs a --start before it",
     "--prompt {} doit être précédé d'un --start", "vor --prompt {} muss ein --start stehen",
     "--prompt {} necesita un --start antes", "--prompt {} precisa de um --start antes"},
    {"cli.noSuchFolder", "no such folder: {}", "dossier introuvable : {}", "Ordner nicht gefunden: {}",
     "no existe la carpeta: {}", "pasta não encontrada: {}"},
};

} // namespace

std::span<const LocalizedText> workspaceStrings() {
    return strings;
}

} // namespace Ostrel
